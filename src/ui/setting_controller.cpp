#include "ui/setting_controller.h"

#include "app/app_start_manager.h"
#include "common/log.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "ui/c_button.h"
#include "ui/only_close_window_controller.h"
#include "ui/root_view.h"
#include "ui/texts.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QStringEncoder>
#include <QVBoxLayout>

namespace velocast {

namespace {

constexpr int kMaxNameBytes = 8;

// GB 18030 bytes decoded as a whole: an incomplete trailing character counts as a failure
// (a stateless decoder flushes at the end of its input).
bool decodeGb18030(const QByteArray &bytes, QString *out)
{
    QStringDecoder decoder("GB18030", QStringDecoder::Flag::Stateless);
    if (!decoder.isValid()) return false;
    *out = decoder.decode(bytes);
    return !decoder.hasError();
}

// Qt reaches GB 18030 through ICU. Without it, the same cut by hand: after the filter only
// ASCII (one byte) and ideographs U+4E00..U+9FA5 (two bytes each in GB 18030) are left, so
// taking whole characters up to 8 bytes gives what decoding the first 8 (or 7) bytes gives.
QString cutWithoutCodec(const QString &kept)
{
    int bytes = 0;
    qsizetype end = 0;
    for (; end < kept.size(); ++end) {
        bytes += kept.at(end).unicode() < 0x80 ? 1 : 2;
        if (bytes > kMaxNameBytes) break;
    }
    return kept.left(end);
}

// Ends editing when the background is clicked: it takes the focus from the name field.
class BackgroundView : public RootView {
public:
    using RootView::RootView;
    std::function<void()> tapped;

protected:
    void mousePressEvent(QMouseEvent *event) override
    {
        if (tapped) tapped();
        event->accept();
    }
};

} // namespace

QString SettingController::showNameCheck(const QString &name)
{
    static const QRegularExpression allowed(QStringLiteral("[a-zA-Z0-9\\x{4e00}-\\x{9fa5}]"));
    QString kept;
    for (auto it = allowed.globalMatch(name); it.hasNext();)
        kept += it.next().captured();

    QStringEncoder encoder("GB18030");
    if (!encoder.isValid()) return cutWithoutCodec(kept);
    const QByteArray bytes = encoder.encode(kept);
    if (bytes.size() <= kMaxNameBytes) return kept;
    QString cut;
    if (decodeGb18030(bytes.left(kMaxNameBytes), &cut)) return cut;
    // The eighth byte was the first half of a two-byte character.
    if (decodeGb18030(bytes.left(kMaxNameBytes - 1), &cut)) return cut;
    return text::kDefaultName;
}

bool SettingController::stringIsOnlyLetterNumberAndChineseCharacter(const QString &string)
{
    static const QRegularExpression pattern(QStringLiteral("^[a-zA-Z0-9_\\x{4e00}-\\x{9fa5}]+$"));
    return pattern.match(string).hasMatch();
}

SettingController::~SettingController()
{
    // The field loses the focus while QWidget deletes the children, and would report
    // editingFinished to a controller that is already half destroyed.
    pcNameTF_->disconnect(this);
}

void SettingController::runModal(QWidget *parent)
{
    SettingController dialog(parent);
    dialog.exec();
}

SettingController::SettingController(QWidget *parent)
    : QDialog(parent)
{
    setWindowTitle(text::kSettingsTitle);
    setWindowModality(Qt::ApplicationModal);
    new OnlyCloseWindowController(this);
    setFixedSize(380, 250);
    initView();
}

void SettingController::initView()
{
    auto *bg = new BackgroundView(this);
    bg->tapped = [this] { fingerTapped(); };
    bgview_ = bg;
    bgview_->setBackgroundColor(Qt::white);
    bgview_->setFocusPolicy(Qt::ClickFocus);
    auto *outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(bgview_);

    powerBtn_ = new QCheckBox(text::kStartAtLoginSwitch, bgview_);
    isAutoStart_ = AppStartManager::isStartAtLogin();
    powerBtn_->setChecked(isAutoStart_);
    connect(powerBtn_, &QCheckBox::toggled, this, &SettingController::powerBtnAction);

    auto *nameLabel = new QLabel(text::kDisplayNameLabel, bgview_);
    nameLabel->setStyleSheet(QStringLiteral("color: rgb(51,51,51); font-size: 14px;"));

    pcNameTFBg_ = new RootView(bgview_);
    pcNameTFBg_->setBackgroundColor(Qt::white);
    pcNameTFBg_->setCornerRadius(4);
    pcNameTFBg_->setBorderWidth(1);
    pcNameTFBg_->setBorderColor(QColor(217, 217, 217));
    pcNameTFBg_->setFixedHeight(34);
    pcNameTF_ = new QLineEdit(pcNameTFBg_);
    pcNameTF_->setFrame(false);
    pcNameTF_->setAccessibleName(text::kDisplayNameLabel);
    pcNameTF_->setStyleSheet(QStringLiteral("background: transparent; font-size: 14px;"));
    pcNameTF_->setText(showNameCheck(CurrentDisplayName()));
    nameLabel->setBuddy(pcNameTF_);
    auto *fieldRow = new QHBoxLayout(pcNameTFBg_);
    fieldRow->setContentsMargins(8, 0, 8, 0);
    fieldRow->addWidget(pcNameTF_);
    connect(pcNameTF_, &QLineEdit::textEdited, this, [this] { handleTextField(pcNameTF_); });
    connect(pcNameTF_, &QLineEdit::editingFinished, this, [this] { handleTextField(pcNameTF_); });
    connect(pcNameTF_, &QLineEdit::returnPressed, this, &SettingController::pcNameTFAction);

    auto *hint = new QLabel(text::kDisplayNameHint, bgview_);
    hint->setStyleSheet(QStringLiteral("color: rgb(153,153,153); font-size: 12px;"));

    cancelBtn_ = new CButton(text::kCancel, bgview_);
    cancelBtn_->setBackgroundNormalColor(Qt::white);
    cancelBtn_->setBackgroundHighlightColor(QColor(242, 242, 247));
    cancelBtn_->setBorderNormalColor(QColor(217, 217, 217));
    cancelBtn_->setBorderHighlightColor(QColor(217, 217, 217));
    cancelBtn_->setTitleNormalColor(QColor(51, 51, 51));
    cancelBtn_->setTitleHighlightColor(QColor(51, 51, 51));
    confirmBtn_ = new CButton(text::kConfirm, bgview_);
    confirmBtn_->setBackgroundNormalColor(QColor(128, 130, 255));
    confirmBtn_->setBackgroundHighlightColor(QColor(102, 104, 230));
    confirmBtn_->setBorderNormalColor(QColor(128, 130, 255));
    confirmBtn_->setBorderHighlightColor(QColor(102, 104, 230));
    confirmBtn_->setTitleNormalColor(Qt::white);
    confirmBtn_->setTitleHighlightColor(Qt::white);
    for (CButton *b : { cancelBtn_, confirmBtn_ }) {
        b->setCornerRadius(4);
        b->setBorderWidth(1);
        b->setFixedSize(96, 34);
    }
    confirmBtn_->setEnabled(!pcNameTF_->text().isEmpty());
    connect(cancelBtn_, &QAbstractButton::clicked, this, &SettingController::cancelBtnAction);
    connect(confirmBtn_, &QAbstractButton::clicked, this, &SettingController::confirmBtnAction);

    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(cancelBtn_);
    buttons->addSpacing(12);
    buttons->addWidget(confirmBtn_);

    auto *content = new QVBoxLayout(bgview_);
    content->setContentsMargins(28, 24, 28, 22);
    content->setSpacing(8);
    content->addWidget(nameLabel);
    content->addWidget(pcNameTFBg_);
    content->addWidget(hint);
    content->addSpacing(10);
    content->addWidget(powerBtn_);
    content->addStretch();
    content->addLayout(buttons);

    setTabOrder(pcNameTF_, powerBtn_);
    setTabOrder(powerBtn_, cancelBtn_);
    setTabOrder(cancelBtn_, confirmBtn_);
}

void SettingController::showEvent(QShowEvent *event)
{
    QDialog::showEvent(event);
    // The window opens without the name field being edited.
    bgview_->setFocus(Qt::OtherFocusReason);
}

void SettingController::fingerTapped()
{
    bgview_->setFocus(Qt::MouseFocusReason);
}

void SettingController::pcNameTFAction()
{
    fingerTapped();
}

void SettingController::handleTextField(QLineEdit *textField)
{
    const QString before = textField->text();
    const QString filtered = showNameCheck(before);
    // setText() also clears the undo history, so the filtering cannot be undone. The caret
    // stays after the same kept characters.
    const int caret = int(showNameCheck(before.left(textField->cursorPosition())).size());
    textField->setText(filtered);
    textField->setCursorPosition(qMin(caret, int(filtered.size())));
    if (textField->text().isEmpty()) logLine(lcUi(), text::kNameRequired);
    confirmBtn_->setEnabled(!textField->text().isEmpty());
}

void SettingController::powerBtnAction()
{
    const long state = powerBtn_->isChecked() ? 1 : 0;
    logLine(lcUi(), QStringLiteral("开机自启动状态%1,").arg(state));
    isAutoStart_ = powerBtn_->isChecked();
}

void SettingController::cancelBtnAction()
{
    reject();
}

void SettingController::confirmBtnAction()
{
    const QString name = pcNameTF_->text();
    if (name.isEmpty()) {
        logLine(lcUi(), text::kNameRequired);
        return;
    }
    SaveDisplayName(name);
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NOTICE_RENAME), name);
    AppStartManager::setStartAtLogin(powerBtn_->isChecked());
    accept();
}

} // namespace velocast
