#pragma once

#include <QDialog>

class QCheckBox;
class QLabel;
class QLineEdit;

namespace velocast {

class CButton;
class RootView;

// The settings window: the display name this computer shows to receivers, and start at
// login. Nothing is applied until confirm: confirm saves the name (SaveDisplayName), posts
// NOTICE_RENAME with it, applies the start-at-login switch and closes; cancel or closing
// the window changes nothing. Each opening is a fresh dialog that reads the stored values
// again. Main thread only.
class SettingController : public QDialog {
    Q_OBJECT
public:
    explicit SettingController(QWidget *parent = nullptr);
    ~SettingController() override;

    // Opens a fresh settings window, application-modal, and returns when it has closed.
    static void runModal(QWidget *parent);

    // The name filter: keeps ASCII letters, digits and the ideographs U+4E00..U+9FA5, in
    // order, and cuts the result to at most 8 bytes of GB 18030 (8 letters or 4 ideographs);
    // "default" when the cut cannot be decoded.
    static QString showNameCheck(const QString &name);
    // Whether the whole string is letters, digits, "_" or ideographs U+4E00..U+9FA5.
    static bool stringIsOnlyLetterNumberAndChineseCharacter(const QString &string);

    QLineEdit *pcNameTF() const { return pcNameTF_; }
    QCheckBox *powerBtn() const { return powerBtn_; }
    CButton *confirmBtn() const { return confirmBtn_; }
    CButton *cancelBtn() const { return cancelBtn_; }
    bool isAutoStart() const { return isAutoStart_; }

public Q_SLOTS:
    void handleTextField(QLineEdit *textField);
    void pcNameTFAction();
    void powerBtnAction();
    void cancelBtnAction();
    void confirmBtnAction();
    void fingerTapped();

protected:
    void showEvent(QShowEvent *event) override;

private:
    void initView();

    RootView *bgview_ = nullptr;
    QLineEdit *pcNameTF_ = nullptr;
    RootView *pcNameTFBg_ = nullptr;
    QCheckBox *powerBtn_ = nullptr;
    CButton *confirmBtn_ = nullptr;
    CButton *cancelBtn_ = nullptr;
    bool isAutoStart_ = false;
};

} // namespace velocast
