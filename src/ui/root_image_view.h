#pragma once

#include "ui/window_drag.h"

#include <QLabel>

namespace velocast {

// An image view that moves its window: dragging the picture drags the window.
class RootImageView : public QLabel {
    Q_OBJECT
public:
    explicit RootImageView(QWidget *parent = nullptr);

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    WindowDragger dragger_;
};

} // namespace velocast
