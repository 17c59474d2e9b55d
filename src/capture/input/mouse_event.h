// MouseEvent: the receiver's mouse actions. It keeps which button the receiver holds and
// turns each action into synthetic events through InputEvent. An action that the held
// button does not allow does nothing at all: a down of one button while another is held,
// an up that does not match the held one, a drag with nothing held.
//
// Threads: the actions and the held button belong to the main thread; the events they post
// run there too, later, in the order the actions were called.
#pragma once

#include "capture/input/input_event.h"

#include <QPointF>

#include <cstdint>

namespace velocast::input {

class MouseEvent : public InputEvent {
public:
    // The held button: process-wide, starts at none.
    enum Held : int32_t { kNone = -1, kLeft = 0, kRight = 1, kCenter = 2 };
    static int32_t heldButton();

    // The receiver's id_pc_mk_event type codes.
    enum Type : int32_t {
        kTypeLeftDown = 1,
        kTypeLeftUp = 2,
        kTypeRightDown = 3,
        kTypeRightUp = 4,
        kTypeCenterDown = 5,
        kTypeCenterUp = 6,
        kTypeDoubleLeft = 7,
        kTypeDrag = 8,
        kTypeScroll = 9,
    };
    // Runs the action of a type code: point is the position on the captured screen, wheel
    // the (wheel_x, wheel_y) pair, read by the scroll code only. Codes 0, negative and
    // above 9 do nothing. Main thread.
    static void eventWithType(int32_t type, QPointF point, QPointF wheel);

    static void leftDown(QPointF point);
    static void leftUp(QPointF point);
    static void leftMove(QPointF point);
    static void rightDown(QPointF point);
    static void rightUp(QPointF point);
    static void rightMove(QPointF point);
    static void centerDown(QPointF point);
    // Posts a second centre-button down, not an up, and frees the held button. Receivers
    // and earlier senders have always paired on this; the button itself is let go when
    // the cast ends (castEnded).
    static void centerUp(QPointF point);
    static void centerMove(QPointF point);
    // A drag of the held button; nothing when none is held.
    static void lastButtonDrag(QPointF point);
    // A left double click (two press/release pairs) whatever is held.
    static void doubleLeft(QPointF point);
    // wheel = (wheel_x, wheel_y) lines; both signs, both axes.
    static void scrollUp(QPointF wheel);

    // The receiver drives this desktop only while a cast runs: castStarted when the receiver
    // allowed the cast and capture runs, castEnded when it stops (any thread). castEnded
    // lets go of every button the receiver still holds and sets the held button back to
    // none, so nothing stays pressed for the person at the computer.
    static void castStarted();
    static void castEnded();
    static bool isCastRunning();
};

} // namespace velocast::input
