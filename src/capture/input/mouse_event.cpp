#include "capture/input/mouse_event.h"

#include "common/log.h"
#include "common/main_thread.h"

#include <atomic>

namespace velocast::input {

namespace {

struct MouseState {
    // Written on the main thread only; atomic so that any thread may look.
    std::atomic<int32_t> held{MouseEvent::kNone};
    std::atomic<bool> casting{false};
};

MouseState &state()
{
    static MouseState s;
    return s;
}

// The common shape of the table: allowed when the held button is none or `button`
// (downs) or exactly `button` (ups, moves); then the new held value and one posted event.
void act(int32_t requiredHeld, bool noneAllowed, int32_t heldAfter, int32_t type, int32_t button, QPointF point)
{
    const int32_t held = state().held.load();
    if (held != requiredHeld && !(noneAllowed && held == MouseEvent::kNone)) return;
    state().held.store(heldAfter);
    InputEvent::inputEvent(type, button, point);
}

} // namespace

int32_t MouseEvent::heldButton() { return state().held.load(); }

void MouseEvent::leftDown(QPointF p) { act(kLeft, true, kLeft, kLeftMouseDown, 0, p); }
void MouseEvent::leftUp(QPointF p) { act(kLeft, false, kNone, kLeftMouseUp, 0, p); }
void MouseEvent::leftMove(QPointF p) { act(kLeft, false, kLeft, kMouseMoved, 0, p); }
void MouseEvent::rightDown(QPointF p) { act(kRight, true, kRight, kRightMouseDown, 1, p); }
void MouseEvent::rightUp(QPointF p) { act(kRight, false, kNone, kRightMouseUp, 1, p); }
void MouseEvent::rightMove(QPointF p) { act(kRight, false, kRight, kMouseMoved, 1, p); }
void MouseEvent::centerDown(QPointF p) { act(kCenter, true, kCenter, kOtherMouseDown, 2, p); }
void MouseEvent::centerUp(QPointF p) { act(kCenter, false, kNone, kOtherMouseDown, 2, p); }
void MouseEvent::centerMove(QPointF p) { act(kCenter, false, kCenter, kMouseMoved, 2, p); }

void MouseEvent::lastButtonDrag(QPointF p)
{
    switch (state().held.load()) {
    case kLeft: inputEvent(kLeftMouseDragged, 0, p); break;
    case kRight: inputEvent(kRightMouseDragged, 1, p); break;
    case kCenter: inputEvent(kOtherMouseDragged, 2, p); break;
    default: break;
    }
}

void MouseEvent::doubleLeft(QPointF p) { mouseButton(0, 2, p); }

void MouseEvent::scrollUp(QPointF wheel) { scrollLines(wheel.x(), wheel.y()); }

void MouseEvent::eventWithType(int32_t type, QPointF point, QPointF wheel)
{
    switch (type) {
    case kTypeLeftDown: leftDown(point); break;
    case kTypeLeftUp: leftUp(point); break;
    case kTypeRightDown: rightDown(point); break;
    case kTypeRightUp: rightUp(point); break;
    case kTypeCenterDown: centerDown(point); break;
    case kTypeCenterUp: centerUp(point); break;
    case kTypeDoubleLeft: doubleLeft(point); break;
    case kTypeDrag: lastButtonDrag(point); break;
    case kTypeScroll: scrollUp(wheel); break;
    default: break;
    }
}

void MouseEvent::castStarted() { state().casting.store(true); }

void MouseEvent::castEnded()
{
    state().casting.store(false);
    // Queued behind the actions already waiting, which find the gate closed. The held value
    // goes back to none here (and only here): a new cast starts with nothing held.
    runOnMainThread([] {
        const int32_t held = state().held.exchange(kNone);
        if (held != kNone) logLine(lcCapture(), QStringLiteral("cast ended while the receiver held button %1: released").arg(held));
        InputEvent::releaseButtons();
    });
}

bool MouseEvent::isCastRunning() { return state().casting.load(); }

} // namespace velocast::input
