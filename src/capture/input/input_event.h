// InputEvent: synthetic mouse, wheel and keyboard events on this desktop, through the
// platform's InputInjector. Class operations only; every one queues its work on the main
// thread and returns at once, and the work runs there in the order the calls were made.
#pragma once

#include "capture/input/input_injector.h"

#include <QPointF>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>

namespace velocast::input {

class InputEvent {
public:
    // Mouse event types, numbered as the receiver's protocol and the rest of the program use them.
    enum EventType : int32_t {
        kLeftMouseDown = 1,
        kLeftMouseUp = 2,
        kRightMouseDown = 3,
        kRightMouseUp = 4,
        kMouseMoved = 5,
        kLeftMouseDragged = 6,
        kRightMouseDragged = 7,
        kOtherMouseDown = 25,
        kOtherMouseUp = 26,
        kOtherMouseDragged = 27,
    };
    // More wheel clicks than this per axis and event are not sent (a hostile amount must not
    // keep the desktop scrolling for minutes); the excess is logged and dropped.
    static constexpr int kMaxWheelClicks = 50;
    // The most press/release pairs one mouseButton call sends.
    static constexpr int kMaxClicks = 10;

    InputEvent() = delete;

    // One mouse event of that type for that button (0 left, 1 right, 2 centre) at point
    // (captured-picture pixels). Types other than the ones above are logged and dropped.
    static void inputEvent(int32_t type, int32_t button, QPointF point);
    // clickNumber press/release pairs (at least one) of the left button at point, so the
    // desktop sees a click of that count. Whatever button is named, the pairs are left-button
    // ones: this is a left click with a count.
    static void mouseButton(int32_t button, int64_t clickNumber, QPointF point);
    // Wheel lines: wheelY vertical (> 0 up), wheelX horizontal (> 0 left), each truncated
    // toward zero and bounded by kMaxWheelClicks.
    static void scrollLines(double wheelX, double wheelY);
    static void inputString(const QString &string);
    // Types string with the modifier keys of flags (modifier::*) held around each character.
    static void writeString(const QString &string, uint64_t flags);

    // The capture being cast (any thread); the backend places positions through it.
    static void setCaptureStream(const CaptureStream &stream);
    // Releases every button the backend holds down (any thread).
    static void releaseButtons();
    // Replaces the backend (any thread; takes effect in order with the queued work). Null
    // means "pick the platform's backend on next use". The program never calls this; other
    // backends and tests do.
    static void setInjector(std::unique_ptr<InputInjector> injector);
    // Makes the backend with factory on the main thread (any thread; in order with the other
    // calls). A null result means none for this cast: the reason it gives is logged once and
    // pointer and keyboard events are dropped until the next setCaptureStream or setInjector.
    using InjectorFactory = std::function<std::unique_ptr<InputInjector>(QString *why)>;
    static void useInjector(InjectorFactory factory);
    // Logs which backend acts on the receiver's pointer (any thread; in order with the
    // calls above), making the platform's one if none is chosen yet.
    static void announceBackend();

    // The wheel clicks an amount turns into: truncated toward zero, bounded by kMaxWheelClicks.
    static int wheelClicks(double amount);
};

} // namespace velocast::input
