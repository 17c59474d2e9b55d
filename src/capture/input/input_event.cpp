#include "capture/input/input_event.h"

#include "common/log.h"
#include "common/main_thread.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace velocast::input {

namespace {

// The backend and what it has been told; touched on the main thread only.
struct Backend {
    std::unique_ptr<InputInjector> injector;
    std::optional<CaptureStream> stream;
    bool tried = false; // makeInputInjector was called and said no; not asked again
    QString lastWhy;
};

Backend &backend()
{
    static Backend b;
    return b;
}

void markUnavailable(const QString &why)
{
    Backend &b = backend();
    b.injector.reset();
    b.tried = true;
    if (why != b.lastWhy)
        logLine(lcCapture(), QStringLiteral("remote input is not available: %1; pointer events are dropped").arg(why));
    b.lastWhy = why;
}

// The injector to use now, made on first use; null (logged once per reason) when this
// desktop has none.
InputInjector *injector()
{
    Backend &b = backend();
    if (!b.injector && !b.tried) {
        QString why;
        b.injector = makeInputInjector(&why);
        if (!b.injector) {
            markUnavailable(why);
            return nullptr;
        }
        if (b.stream) b.injector->setCaptureStream(*b.stream);
    }
    return b.injector.get();
}

// Queues work that needs the backend; dropped when there is none.
void post(std::function<void(InputInjector &)> work)
{
    runOnMainThread([work = std::move(work)] {
        if (InputInjector *i = injector()) work(*i);
    });
}

std::optional<MouseButton> toButton(int32_t button)
{
    switch (button) {
    case 0: return MouseButton::Left;
    case 1: return MouseButton::Right;
    case 2: return MouseButton::Center;
    default: return std::nullopt;
    }
}

} // namespace

void InputEvent::inputEvent(int32_t type, int32_t button, QPointF point)
{
    const std::optional<MouseButton> b = toButton(button);
    if (!b) {
        logLine(lcCapture(), QStringLiteral("inputEvent: no such button %1; dropped").arg(button));
        return;
    }
    switch (type) {
    case kLeftMouseDown:
    case kRightMouseDown:
    case kOtherMouseDown:
    case kLeftMouseUp:
    case kRightMouseUp:
    case kOtherMouseUp: {
        const bool pressed = type == kLeftMouseDown || type == kRightMouseDown || type == kOtherMouseDown;
        // The left and right types name their button; "other" uses the one given.
        const MouseButton which = type <= kLeftMouseUp ? MouseButton::Left : type <= kRightMouseUp ? MouseButton::Right : *b;
        post([point, which, pressed](InputInjector &i) {
            i.moveTo(point);
            i.setButton(which, pressed);
        });
        return;
    }
    case kMouseMoved:
    case kLeftMouseDragged:
    case kRightMouseDragged:
    case kOtherMouseDragged:
        // A drag is a move while the button is held; the desktop knows which one is.
        post([point](InputInjector &i) { i.moveTo(point); });
        return;
    default:
        logLine(lcCapture(), QStringLiteral("inputEvent: unknown event type %1; dropped").arg(type));
        return;
    }
}

void InputEvent::mouseButton(int32_t button, int64_t clickNumber, QPointF point)
{
    Q_UNUSED(button); // the pairs are left-button ones whatever the button (see the header)
    int count = int(std::clamp<int64_t>(clickNumber, 1, kMaxClicks));
    if (clickNumber > kMaxClicks)
        logLine(lcCapture(), QStringLiteral("mouseButton: click count %1 capped at %2").arg(clickNumber).arg(kMaxClicks));
    post([point, count](InputInjector &i) {
        i.moveTo(point);
        i.click(MouseButton::Left, count);
    });
}

int InputEvent::wheelClicks(double amount)
{
    if (!std::isfinite(amount)) return 0;
    const double t = std::trunc(amount);
    return int(std::clamp(t, double(-kMaxWheelClicks), double(kMaxWheelClicks)));
}

void InputEvent::scrollLines(double wheelX, double wheelY)
{
    const int vertical = wheelClicks(wheelY);
    const int horizontal = wheelClicks(wheelX);
    if (std::abs(std::trunc(wheelY)) > kMaxWheelClicks || std::abs(std::trunc(wheelX)) > kMaxWheelClicks)
        logLine(lcCapture(), QStringLiteral("scroll: wheel %1, %2 lines capped at %3 clicks per axis")
                                 .arg(wheelX).arg(wheelY).arg(kMaxWheelClicks));
    if (vertical == 0 && horizontal == 0) return;
    post([vertical, horizontal](InputInjector &i) { i.scroll(vertical, horizontal); });
}

void InputEvent::inputString(const QString &string) { writeString(string, 0); }

void InputEvent::writeString(const QString &string, uint64_t flags)
{
    if (string.isEmpty()) return;
    post([string, flags](InputInjector &i) { i.typeText(string, flags); });
}

void InputEvent::setCaptureStream(const CaptureStream &stream)
{
    runOnMainThread([stream] {
        Backend &b = backend();
        b.stream = stream;
        // A new capture may be on a desktop that has a backend now.
        b.tried = false;
        if (b.injector) b.injector->setCaptureStream(stream);
    });
}

void InputEvent::releaseButtons()
{
    runOnMainThread([] {
        if (InputInjector *i = backend().injector.get()) i->releaseButtons();
    });
}

void InputEvent::setInjector(std::unique_ptr<InputInjector> replacement)
{
    // std::function needs a copyable callable: hand the injector over through a shared_ptr.
    auto holder = std::make_shared<std::unique_ptr<InputInjector>>(std::move(replacement));
    runOnMainThread([holder] {
        Backend &b = backend();
        b.injector = std::move(*holder);
        b.tried = false;
        if (b.injector && b.stream) b.injector->setCaptureStream(*b.stream);
    });
}

void InputEvent::announceBackend()
{
    runOnMainThread([] {
        if (InputInjector *i = injector())
            logLine(lcCapture(), QStringLiteral("remote input with the %1 backend").arg(i->name()));
        else
            logLine(lcCapture(), QStringLiteral("remote input: none (%1)").arg(backend().lastWhy));
    });
}

void InputEvent::useInjector(InjectorFactory factory)
{
    runOnMainThread([factory = std::move(factory)] {
        QString why;
        std::unique_ptr<InputInjector> made = factory(&why);
        if (!made) {
            markUnavailable(why);
            return;
        }
        Backend &b = backend();
        b.injector = std::move(made);
        b.tried = false;
        if (b.stream) b.injector->setCaptureStream(*b.stream);
    });
}

} // namespace velocast::input
