#pragma once

#include <QColor>
#include <QWidget>

namespace velocast {

// A plain view that paints its own background: fill colour, rounded corners and a border.
// Each setter takes effect at once (repaints).
class RootView : public QWidget {
    Q_OBJECT
public:
    explicit RootView(QWidget *parent = nullptr);

    QColor backgroundColor() const { return backgroundColor_; }
    void setBackgroundColor(const QColor &color);
    qreal cornerRadius() const { return cornerRadius_; }
    void setCornerRadius(qreal radius);
    qreal borderWidth() const { return borderWidth_; }
    void setBorderWidth(qreal width);
    QColor borderColor() const { return borderColor_; }
    void setBorderColor(const QColor &color);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QColor backgroundColor_ = Qt::transparent;
    QColor borderColor_ = Qt::transparent;
    qreal cornerRadius_ = 0;
    qreal borderWidth_ = 0;
};

} // namespace velocast
