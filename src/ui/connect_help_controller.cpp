#include "ui/connect_help_controller.h"

#include "common/log.h"
#include "ui/c_button.h"
#include "ui/texts.h"
#include "ui/toast.h"
#include "ui/window_button_tool.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QUrl>
#include <QVBoxLayout>

#include <chrono>

namespace velocast {

namespace {

using namespace std::chrono_literals;

const QColor kAccent(128, 130, 255);
const QColor kInk(90, 98, 120);
const QColor kPale(236, 238, 255);

// The picture of each step, drawn here.
class HelpIllustration : public QWidget {
public:
    HelpIllustration(int page, QWidget *parent)
        : QWidget(parent)
        , page_(page)
    {
        setFixedHeight(150);
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.translate((width() - 300) / 2.0, 0);
        if (page_ == 1)
            drawSameNetwork(p);
        else if (page_ == 2)
            drawCodeOnReceiver(p);
        else
            drawCodeBoxes(p);
    }

private:
    static void screen(QPainter &p, const QRectF &r)
    {
        p.setPen(QPen(kInk, 3));
        p.setBrush(kPale);
        p.drawRoundedRect(r, 6, 6);
    }
    static void drawSameNetwork(QPainter &p)
    {
        // Laptop on the left, receiver screen on the right, a network between them.
        screen(p, QRectF(10, 58, 80, 52));
        p.drawLine(QPointF(0, 118), QPointF(100, 118));
        screen(p, QRectF(200, 40, 100, 66));
        p.drawLine(QPointF(250, 106), QPointF(250, 120));
        p.drawLine(QPointF(230, 120), QPointF(270, 120));
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(kAccent, 4, Qt::SolidLine, Qt::RoundCap));
        const QPointF c(150, 100);
        for (int r = 14; r <= 42; r += 14)
            p.drawArc(QRectF(c.x() - r, c.y() - r, 2 * r, 2 * r), 45 * 16, 90 * 16);
        p.setBrush(kAccent);
        p.drawEllipse(c, 4, 4);
    }
    static void drawCodeOnReceiver(QPainter &p)
    {
        screen(p, QRectF(40, 14, 220, 110));
        p.drawLine(QPointF(150, 124), QPointF(150, 138));
        p.drawLine(QPointF(120, 138), QPointF(180, 138));
        QFont f = p.font();
        f.setPixelSize(34);
        f.setBold(true);
        f.setLetterSpacing(QFont::AbsoluteSpacing, 6);
        p.setFont(f);
        p.setPen(kAccent);
        p.drawText(QRectF(40, 14, 220, 110), Qt::AlignCenter, QStringLiteral("123456"));
    }
    static void drawCodeBoxes(QPainter &p)
    {
        QFont f = p.font();
        f.setPixelSize(24);
        f.setBold(true);
        p.setFont(f);
        for (int i = 0; i < 6; ++i) {
            const QRectF box(6 + i * 49, 45, 42, 52);
            p.setPen(QPen(i < 4 ? kAccent : QColor(217, 217, 217), 2));
            p.setBrush(Qt::white);
            p.drawRoundedRect(box, 6, 6);
            if (i < 4) {
                p.setPen(kInk);
                p.drawText(box, Qt::AlignCenter, QString::number(i + 1));
            }
        }
    }

    int page_;
};

CButton *wizardButton(const QString &title, bool primary, QWidget *parent)
{
    auto *b = new CButton(title, parent);
    const QColor fill = primary ? kAccent : Qt::white;
    const QColor pressed = primary ? QColor(102, 104, 230) : QColor(242, 242, 247);
    b->setBackgroundNormalColor(fill);
    b->setBackgroundHighlightColor(pressed);
    b->setBorderNormalColor(primary ? fill : QColor(217, 217, 217));
    b->setBorderHighlightColor(primary ? pressed : QColor(217, 217, 217));
    b->setTitleNormalColor(primary ? Qt::white : QColor(51, 51, 51));
    b->setTitleHighlightColor(primary ? Qt::white : QColor(51, 51, 51));
    b->setCornerRadius(4);
    b->setBorderWidth(1);
    b->setFixedSize(104, 36);
    return b;
}

} // namespace

ConnectHelpController::ConnectHelpController(QWidget *parent)
    : ConnectHelpController(parent, 1)
{
    hide();
}

ConnectHelpController::ConnectHelpController(QWidget *parent, int page)
    : OverlayWidget(parent)
    , page_(page)
{
    buildPage();
}

ConnectHelpController::~ConnectHelpController()
{
    logLine(lcUi(), QStringLiteral("dealoc"));
}

void ConnectHelpController::buildPage()
{
    setAutoFillBackground(false);
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(text::kHelpTitle);

    auto *title = new QLabel(text::kHelpTitle, this);
    title->setStyleSheet(QStringLiteral("color: rgb(51,51,51); font-size: 15px; font-weight: bold;"));
    auto *stepCount = new QLabel(QStringLiteral("%1 / 3").arg(page_), this);
    stepCount->setStyleSheet(QStringLiteral("color: rgb(153,153,153); font-size: 13px;"));
    closeBtn_ = new QPushButton(QStringLiteral("✕"), this);
    closeBtn_->setAccessibleName(text::kClose);
    closeBtn_->setToolTip(text::kClose);
    closeBtn_->setFlat(true);
    closeBtn_->setAutoDefault(false);
    closeBtn_->setFixedSize(32, 32);
    closeBtn_->setCursor(Qt::PointingHandCursor);
    closeBtn_->setStyleSheet(QStringLiteral("QPushButton { color: rgb(120,120,120); font-size: 16px; border: none; }"
                                            "QPushButton:hover, QPushButton:focus { color: rgb(51,51,51);"
                                            " background: rgb(242,242,247); border-radius: 16px; }"));
    connect(closeBtn_, &QAbstractButton::clicked, this, &ConnectHelpController::closeBtnAction);
    auto *top = new QHBoxLayout;
    top->addWidget(title);
    top->addSpacing(8);
    top->addWidget(stepCount);
    top->addStretch();
    top->addWidget(closeBtn_);

    const QString heading = page_ == 1 ? text::kHelpStep1Title
        : page_ == 2                   ? text::kHelpStep2Title
                                       : text::kHelpStep3Title;
    const QString detail = page_ == 1 ? text::kHelpStep1Detail
        : page_ == 2                  ? text::kHelpStep2Detail
                                      : text::kHelpStep3Detail;
    auto *headingLabel = new QLabel(heading, this);
    headingLabel->setAlignment(Qt::AlignCenter);
    headingLabel->setStyleSheet(QStringLiteral("color: rgb(34,34,34); font-size: 18px; font-weight: bold;"));
    auto *detailLabel = new QLabel(detail, this);
    detailLabel->setAlignment(Qt::AlignCenter);
    detailLabel->setWordWrap(true);
    detailLabel->setStyleSheet(QStringLiteral("color: rgb(102,102,102); font-size: 14px;"));

    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(20, 12, 20, 20);
    column->setSpacing(10);
    column->addLayout(top);
    column->addStretch(1);
    column->addWidget(new HelpIllustration(page_, this));
    column->addSpacing(6);
    column->addWidget(headingLabel);
    column->addWidget(detailLabel);

    if (page_ == 3) {
        auto *more = new QLabel(text::kHelpMore, this);
        more->setStyleSheet(QStringLiteral("color: rgb(102,102,102); font-size: 13px;"));
        auto *url = new QLabel(helpPageUrl(), this);
        url->setTextFormat(Qt::PlainText);
        url->setTextInteractionFlags(Qt::TextSelectableByMouse);
        url->setWordWrap(true);
        url->setAlignment(Qt::AlignCenter);
        url->setStyleSheet(QStringLiteral("color: rgb(128,130,255); font-size: 12px;"));
        const QString linkButtonStyle =
            QStringLiteral("QPushButton { color: rgb(128,130,255); font-size: 13px; border: 1px solid rgb(178,179,255);"
                           " border-radius: 4px; padding: 3px 10px; background: white; }"
                           "QPushButton:pressed { background: rgb(236,238,255); }"
                           "QPushButton:focus { border: 2px solid rgb(128,130,255); }");
        urlOpenBtn_ = new QPushButton(text::kOpenHelpPage, this);
        urlCopyBtn_ = new QPushButton(text::kCopyHelpLink, this);
        for (QPushButton *b : {urlOpenBtn_, urlCopyBtn_}) {
            b->setAutoDefault(false);
            b->setCursor(Qt::PointingHandCursor);
            b->setStyleSheet(linkButtonStyle);
        }
        connect(urlOpenBtn_, &QAbstractButton::clicked, this, &ConnectHelpController::urlOpenBtnAction);
        connect(urlCopyBtn_, &QAbstractButton::clicked, this, &ConnectHelpController::urlCopyBtnAction);
        auto *row = new QHBoxLayout;
        row->addStretch();
        row->addWidget(more);
        row->addSpacing(6);
        row->addWidget(urlOpenBtn_);
        row->addWidget(urlCopyBtn_);
        row->addStretch();
        column->addLayout(row);
        column->addWidget(url);
    }
    column->addStretch(2);

    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    if (page_ > 1) {
        preBtn_ = wizardButton(text::kPrevious, false, this);
        connect(preBtn_, &QAbstractButton::clicked, this,
            page_ == 2 ? &ConnectHelpController::pre2BtnAction : &ConnectHelpController::pre3BtnAction);
        buttons->addWidget(preBtn_);
        buttons->addSpacing(12);
    }
    if (page_ < 3) {
        nextBtn_ = wizardButton(text::kNext, true, this);
        connect(nextBtn_, &QAbstractButton::clicked, this,
            page_ == 1 ? &ConnectHelpController::next1BtnAction : &ConnectHelpController::next2BtnAction);
        buttons->addWidget(nextBtn_);
    } else {
        doneBtn_ = wizardButton(text::kDone, true, this);
        connect(doneBtn_, &QAbstractButton::clicked, this, &ConnectHelpController::doneBtnAction);
        buttons->addWidget(doneBtn_);
    }
    buttons->addStretch();
    column->addLayout(buttons);

    // Reading order: the step's buttons first, closing last.
    QWidget *first = nextBtn_ ? static_cast<QWidget *>(nextBtn_) : doneBtn_;
    if (preBtn_) setTabOrder(preBtn_, first);
    if (urlCopyBtn_) {
        setTabOrder(urlOpenBtn_, urlCopyBtn_);
        setTabOrder(urlCopyBtn_, preBtn_);
    }
    setTabOrder(first, closeBtn_);
}

void ConnectHelpController::present()
{
    if (nextPage_) {
        nextPage_->hide();
        nextPage_->deleteLater();
        nextPage_ = nullptr;
    }
    showOver(parentWidget());
    (nextBtn_ ? nextBtn_ : static_cast<QWidget *>(closeBtn_))->setFocus(Qt::OtherFocusReason);
}

void ConnectHelpController::showEvent(QShowEvent *event)
{
    OverlayWidget::showEvent(event);
    // Only the page that lies over the window handles the window's buttons; spontaneous
    // events (the window being minimised and restored) leave them alone.
    if (page_ != 1 || event->spontaneous()) return;
    preHidden_ = WindowButtonTool::windowButtonIsHidden(window());
    WindowButtonTool::setWindowButtonHidden(window(), true);
}

void ConnectHelpController::hideEvent(QHideEvent *event)
{
    OverlayWidget::hideEvent(event);
    if (page_ != 1 || event->spontaneous()) return;
    WindowButtonTool::setWindowButtonHidden(window(), preHidden_);
}

void ConnectHelpController::pushPage(int page)
{
    if (nextPage_) nextPage_->deleteLater();
    nextPage_ = new ConnectHelpController(this, page);
    nextPage_->showOver(this);
    QPushButton *focus = nextPage_->nextBtn_ ? nextPage_->nextBtn_ : nextPage_->doneBtn_;
    focus->setFocus(Qt::OtherFocusReason);
}

void ConnectHelpController::next1BtnAction()
{
    pushPage(2);
}
void ConnectHelpController::next2BtnAction()
{
    pushPage(3);
}
void ConnectHelpController::pre2BtnAction()
{
    removePage();
}
void ConnectHelpController::pre3BtnAction()
{
    removePage();
}

void ConnectHelpController::removePage()
{
    auto *below = qobject_cast<ConnectHelpController *>(parentWidget());
    hide();
    deleteLater();
    if (below && below->nextBtn_) below->nextBtn_->setFocus(Qt::OtherFocusReason);
}

void ConnectHelpController::closeBtnAction()
{
    removeWizard();
}
void ConnectHelpController::doneBtnAction()
{
    removeWizard();
}

void ConnectHelpController::removeWizard()
{
    // Walk down to what the wizard covers, then take every wizard off it.
    QWidget *content = parentWidget();
    while (qobject_cast<ConnectHelpController *>(content))
        content = content->parentWidget();
    if (!content) return;
    const auto wizards = content->findChildren<ConnectHelpController *>(Qt::FindDirectChildrenOnly);
    for (ConnectHelpController *first : wizards) {
        first->hide(); // hides every page laid over it in the same step
        for (ConnectHelpController *later : first->findChildren<ConnectHelpController *>())
            later->deleteLater();
        first->nextPage_ = nullptr;
    }
}

void ConnectHelpController::urlCopyBtnAction()
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(helpPageUrl());
    Toast::showText(this, text::kCopied, 1000ms);
}

void ConnectHelpController::urlOpenBtnAction()
{
    const QString url = helpPageUrl();
    logLine(lcUi(), QStringLiteral("open help page %1").arg(url));
    if (!QDesktopServices::openUrl(QUrl(url))) Toast::showText(this, text::kHelpPageNotOpened, 2000ms);
}

QString ConnectHelpController::helpPageUrl()
{
    // The page ships with the program under <prefix>/share/doc/velocast. Look next to the
    // running binary first, so a relocated install or the build tree (where programs sit
    // one folder deeper) finds its own copy; otherwise the configured install location.
    const QString file = QStringLiteral("/share/doc/velocast/help.html");
    const QDir exeDir(QCoreApplication::applicationDirPath());
    for (const QString &up : {QStringLiteral("/.."), QStringLiteral("/../..")}) {
        const QFileInfo candidate(exeDir.path() + up + file);
        if (candidate.isFile()) return QUrl::fromLocalFile(candidate.canonicalFilePath()).toString();
    }
    return QUrl::fromLocalFile(QStringLiteral(VELOCAST_DOC_DIR "/help.html")).toString();
}

void ConnectHelpController::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), Qt::white);
}

void ConnectHelpController::mousePressEvent(QMouseEvent *event)
{
    event->accept(); // the window below is covered
}

void ConnectHelpController::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape)
        closeBtnAction();
    else
        OverlayWidget::keyPressEvent(event);
}

} // namespace velocast
