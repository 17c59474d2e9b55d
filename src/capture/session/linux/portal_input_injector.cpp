#include "capture/session/linux/portal_input_injector.h"

#include "capture/session/linux/portal_session.h"
#include "common/log.h"

#include <QPointer>

#include <algorithm>
#include <cmath>
#include <set>
#include <vector>

namespace velocast::capture {

namespace {

// Linux input button codes (linux/input-event-codes.h), as the portal takes them.
constexpr int32_t kButtonLeft = 0x110;
constexpr int32_t kButtonRight = 0x111;
constexpr int32_t kButtonMiddle = 0x112;
// The portal's axes.
constexpr uint32_t kAxisVertical = 0;
constexpr uint32_t kAxisHorizontal = 1;

int32_t buttonCode(input::MouseButton b)
{
    switch (b) {
    case input::MouseButton::Left: return kButtonLeft;
    case input::MouseButton::Right: return kButtonRight;
    case input::MouseButton::Center: return kButtonMiddle;
    }
    return kButtonLeft;
}

class PortalInputInjector final : public input::InputInjector {
public:
    explicit PortalInputInjector(PortalSession *session) : session_(session) {}
    ~PortalInputInjector() override { releaseButtons(); }

    QString name() const override { return QStringLiteral("portal"); }

    void setCaptureStream(const input::CaptureStream &stream) override { area_ = stream.area; }

    void moveTo(QPointF position) override
    {
        if (!session_ || !std::isfinite(position.x()) || !std::isfinite(position.y())) return;
        // The stream's pixels are the captured picture's; the desktop keeps the pointer on
        // the stream, so a position beyond it is put on its edge here.
        // The picture's size follows the stream's when it changes; the size the portal said
        // at the start stands in until the first picture.
        const PortalSession::Stream &s = session_->stream();
        const int width = area_.width() > 0 ? area_.width() : s.width;
        const int height = area_.height() > 0 ? area_.height() : s.height;
        double x = position.x(), y = position.y();
        if (width > 0) x = std::clamp(x, 0.0, double(width - 1));
        if (height > 0) y = std::clamp(y, 0.0, double(height - 1));
        session_->pointerMotionAbsolute(x, y);
    }

    void setButton(input::MouseButton button, bool pressed) override { sendButton(buttonCode(button), pressed); }

    void click(input::MouseButton button, int count) override
    {
        for (int i = 0; i < count; ++i) {
            sendButton(buttonCode(button), true);
            sendButton(buttonCode(button), false);
        }
    }

    void scroll(int verticalLines, int horizontalLines) override
    {
        if (!session_) return;
        // The portal's steps grow down and right; ours up and left.
        if (verticalLines) session_->pointerAxisDiscrete(kAxisVertical, -verticalLines);
        if (horizontalLines) session_->pointerAxisDiscrete(kAxisHorizontal, -horizontalLines);
    }

    void typeText(const QString &text, uint64_t flags) override
    {
        if (!session_) return;
        std::vector<uint32_t> modifiers;
        if (flags & input::modifier::kShift) modifiers.push_back(0xffe1); // Shift_L
        if (flags & input::modifier::kControl) modifiers.push_back(0xffe3); // Control_L
        if (flags & input::modifier::kAlternate) modifiers.push_back(0xffe9); // Alt_L
        if (flags & input::modifier::kCommand) modifiers.push_back(0xffeb); // Super_L
        for (char32_t cp : text.toUcs4()) {
            const uint32_t sym = keysymForCodePoint(cp);
            if (!sym) {
                logLine(lcCapture(), QStringLiteral("typeText: U+%1 has no key; skipped").arg(uint(cp), 4, 16, QLatin1Char('0')));
                continue;
            }
            for (uint32_t m : modifiers) session_->keyboardKeysym(int32_t(m), true);
            session_->keyboardKeysym(int32_t(sym), true);
            session_->keyboardKeysym(int32_t(sym), false);
            for (auto m = modifiers.rbegin(); m != modifiers.rend(); ++m) session_->keyboardKeysym(int32_t(*m), false);
        }
    }

    void releaseButtons() override
    {
        const std::set<int32_t> held = held_;
        for (int32_t code : held) sendButton(code, false);
    }

private:
    void sendButton(int32_t code, bool pressed)
    {
        if (pressed)
            held_.insert(code);
        else
            held_.erase(code);
        if (session_) session_->pointerButton(code, pressed);
    }

    QPointer<PortalSession> session_;
    QRect area_;
    std::set<int32_t> held_;
};

} // namespace

uint32_t keysymForCodePoint(char32_t cp)
{
    switch (cp) {
    case U'\n':
    case U'\r': return 0xff0d; // Return
    case U'\t': return 0xff09; // Tab
    case U'\b': return 0xff08; // BackSpace
    default: break;
    }
    if (cp < 0x20 || (cp >= 0x7f && cp < 0xa0) || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
    if (cp <= 0xff) return uint32_t(cp);
    return 0x01000000u | uint32_t(cp);
}

std::unique_ptr<input::InputInjector> makePortalInputInjector(PortalSession *session)
{
    return std::make_unique<PortalInputInjector>(session);
}

} // namespace velocast::capture
