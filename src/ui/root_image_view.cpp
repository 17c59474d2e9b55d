#include "ui/root_image_view.h"

#include <QMouseEvent>

namespace velocast {

RootImageView::RootImageView(QWidget *parent)
    : QLabel(parent)
{ }

void RootImageView::mousePressEvent(QMouseEvent *event)
{
    if (!dragger_.press(this, event)) QLabel::mousePressEvent(event);
}

void RootImageView::mouseMoveEvent(QMouseEvent *event)
{
    if (!dragger_.move(event)) QLabel::mouseMoveEvent(event);
}

void RootImageView::mouseReleaseEvent(QMouseEvent *event)
{
    dragger_.release();
    QLabel::mouseReleaseEvent(event);
}

} // namespace velocast
