#pragma once

#include <QColor>
#include <QTimer>
#include <QWidget>

namespace velocast {

// The waiting animation: a ring of twelve spokes whose brightness turns around the ring.
// Painted here, no image files; it only ticks while shown.
class LoadingAnimation : public QWidget {
    Q_OBJECT
public:
    explicit LoadingAnimation(QWidget *parent = nullptr);

    bool isAnimating() const { return timer_.isActive(); }
    int frame() const { return frame_; }
    void setColor(const QColor &color);
    QSize sizeHint() const override { return QSize(44, 44); }

    static constexpr int kSpokes = 12;

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    QTimer timer_;
    QColor color_ { 128, 130, 255 };
    int frame_ = 0;
};

} // namespace velocast
