#pragma once

#include "ui/overlay_widget.h"

class QLabel;

namespace velocast {

class CButton;
class LoadingAnimation;
class RootView;

// The waiting overlay shown while the receiver decides on a casting request: a dim layer
// over its parent, and a white card with the animation, a line of text and a cancel
// button. Cancel hides the overlay and posts NOTICE_CANCELREQUEST (no object) once per
// press; whoever shows the overlay keeps it and decides when to delete it. Main thread only.
class RequestLoadingView : public OverlayWidget {
    Q_OBJECT
public:
    explicit RequestLoadingView(QWidget *parent);
    ~RequestLoadingView() override;

    CButton *cancelBtn() const { return cancelBtn_; }
    LoadingAnimation *imageView() const { return imageView_; }

public Q_SLOTS:
    void cancelBtnAction();

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    void fitCard();

    RootView *loadingView_ = nullptr; // the card
    LoadingAnimation *imageView_ = nullptr;
    QLabel *textLabel_ = nullptr;
    QWidget *splitLine_ = nullptr;
    CButton *cancelBtn_ = nullptr;
};

} // namespace velocast
