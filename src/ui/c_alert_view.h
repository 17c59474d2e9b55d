#pragma once

#include "ui/overlay_widget.h"

#include <functional>

class QLabel;

namespace velocast {

class CButton;
class RootView;

// A confirm/cancel prompt laid over its parent: a dim layer and a white box with a title,
// a detail text and two buttons. Either button hides the prompt first and then calls
// blockClick with cancelled = false (confirm) or true (cancel); the owner deletes it.
// Titles and details are shown as plain text. Main thread only.
class CAlertView : public OverlayWidget {
    Q_OBJECT
public:
    using BlockClick = std::function<void(bool cancelled)>;

    // Builds a prompt as a child of parent (hidden until shown with showOver()).
    static CAlertView *loadFromNib(QWidget *parent);

    explicit CAlertView(QWidget *parent);

    void setTitle(const QString &title);
    void setDetail(const QString &detail);
    void setButtonTitles(const QString &cancel, const QString &confirm);
    void setBlockClick(BlockClick block) { blockClick_ = std::move(block); }

    QLabel *titleLabel() const { return titleLabel_; }
    QLabel *detailLabel() const { return detailLabel_; }
    CButton *cancelBtn() const { return cancelBtn_; }
    CButton *confirmBtn() const { return confirmBtn_; }

public Q_SLOTS:
    void confirmBtnAction();
    void cancelBtnAction();

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    void finish(bool cancelled);
    void fitBox();

    RootView *alertBg_ = nullptr;
    QLabel *titleLabel_ = nullptr;
    QLabel *detailLabel_ = nullptr;
    CButton *cancelBtn_ = nullptr;
    CButton *confirmBtn_ = nullptr;
    QWidget *splitLine_ = nullptr;
    BlockClick blockClick_;
};

} // namespace velocast
