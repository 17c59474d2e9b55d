#pragma once

#include <QColor>
#include <QPushButton>

namespace velocast {

// A push button that draws itself: a rounded, bordered box whose colours change while it
// is pressed. It sends clicked() only for a press that ends inside the button: dragging
// out of it abandons the press, even if the pointer comes back. A disabled button ignores
// presses. The keyboard (Space) works as on any push button.
//
// The title colours are crossed on purpose: pressed, the title is drawn in
// titleNormalColor; released, in titleHighlightColor.
class CButton : public QPushButton {
    Q_OBJECT
public:
    explicit CButton(QWidget *parent = nullptr);
    explicit CButton(const QString &title, QWidget *parent = nullptr);

    // Colour setters ignore an invalid colour. Every setter repaints.
    QColor titleNormalColor() const { return titleNormalColor_; }
    void setTitleNormalColor(const QColor &color);
    QColor titleHighlightColor() const { return titleHighlightColor_; }
    void setTitleHighlightColor(const QColor &color);
    QColor borderNormalColor() const { return borderNormalColor_; }
    void setBorderNormalColor(const QColor &color);
    QColor borderHighlightColor() const { return borderHighlightColor_; }
    void setBorderHighlightColor(const QColor &color);
    QColor backgroundNormalColor() const { return backgroundNormalColor_; }
    void setBackgroundNormalColor(const QColor &color);
    QColor backgroundHighlightColor() const { return backgroundHighlightColor_; }
    void setBackgroundHighlightColor(const QColor &color);
    qreal cornerRadius() const { return cornerRadius_; }
    void setCornerRadius(qreal radius);
    qreal borderWidth() const { return borderWidth_; }
    void setBorderWidth(qreal width);

    // True between a press and its release, unless the pointer left the button meanwhile.
    bool mouseDown() const { return mouseDown_; }
    // The colour the title was last drawn in.
    QColor titleColor() const { return titleColor_; }

    QSize sizeHint() const override;

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void changeEvent(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void setup();
    void mouseExited();
    // The two looks; each picks the colours for the next paint.
    void hightlightState();
    void normalState();
    void setColor(QColor &field, const QColor &color);

    QColor titleNormalColor_;
    QColor titleHighlightColor_;
    QColor borderNormalColor_;
    QColor borderHighlightColor_;
    QColor backgroundNormalColor_;
    QColor backgroundHighlightColor_;
    qreal cornerRadius_ = 0;
    qreal borderWidth_ = 0;
    bool mouseDown_ = false;

    // Chosen by hightlightState()/normalState().
    QColor titleColor_;
    QColor fillColor_;
    QColor strokeColor_;
};

} // namespace velocast
