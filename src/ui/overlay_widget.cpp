#include "ui/overlay_widget.h"

#include <QEvent>

namespace velocast {

OverlayWidget::OverlayWidget(QWidget *parent)
    : QWidget(parent)
{
    followParent();
}

void OverlayWidget::showOver(QWidget *parent)
{
    if (parentWidget() != parent) setParent(parent); // ParentChange re-attaches the filter
    followParent();
    show();
    raise();
}

void OverlayWidget::followParent()
{
    QWidget *p = parentWidget();
    if (!p) return;
    p->removeEventFilter(this);
    p->installEventFilter(this);
    setGeometry(p->rect());
}

bool OverlayWidget::event(QEvent *event)
{
    if (event->type() == QEvent::ParentChange) followParent();
    return QWidget::event(event);
}

bool OverlayWidget::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == parentWidget() && event->type() == QEvent::Resize) setGeometry(parentWidget()->rect());
    return QWidget::eventFilter(watched, event);
}

} // namespace velocast
