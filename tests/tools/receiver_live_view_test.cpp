// The live view: pointer input in the window becomes id_pc_mk_event messages.
#include "live_view.h"

#include <QApplication>
#include <QMouseEvent>
#include <QWheelEvent>

#include <gtest/gtest.h>

using namespace velocast::receiver;

// Buttons, drags, double clicks and wheel notches, each as type, x, y, wheel_x, wheel_y.
TEST(LiveView, PointerInputBecomesTypedMessages)
{
    LiveView view("test");
    view.resize(800, 450);
    QList<QList<int>> sent;
    QObject::connect(&view, &LiveView::pointer, [&](const OutgoingMessage &m) {
        EXPECT_EQ(m.id, "id_pc_mk_event");
        EXPECT_EQ(QSize(m.property.value("width").toInt(), m.property.value("height").toInt()), QSize(800, 450));
        sent.append({m.property.value("type").toInt(), m.property.value("x").toInt(), m.property.value("y").toInt(),
                     m.property.value("wheel_x").toInt(), m.property.value("wheel_y").toInt()});
    });
    const struct {
        QEvent::Type type;
        Qt::MouseButton button;
        Qt::MouseButtons held;
        QPointF pos;
    } mice[] = {
        {QEvent::MouseMove, Qt::NoButton, Qt::NoButton, {5, 5}}, // hovering sends nothing
        {QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton, {100, 50}},
        {QEvent::MouseMove, Qt::NoButton, Qt::LeftButton, {120, 60}},
        {QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, {120, 60}},
        {QEvent::MouseButtonPress, Qt::RightButton, Qt::RightButton, {1, 2}},
        {QEvent::MouseButtonRelease, Qt::RightButton, Qt::NoButton, {1, 2}},
        {QEvent::MouseButtonPress, Qt::MiddleButton, Qt::MiddleButton, {3, 4}},
        {QEvent::MouseButtonRelease, Qt::MiddleButton, Qt::NoButton, {3, 4}},
        {QEvent::MouseButtonDblClick, Qt::LeftButton, Qt::LeftButton, {700, 400}},
    };
    for (const auto &m : mice) {
        QMouseEvent e(m.type, m.pos, view.mapToGlobal(m.pos), m.button, m.held, Qt::NoModifier);
        QApplication::sendEvent(&view, &e);
    }
    // Two notches down, one to the side, less than a notch (nothing).
    for (const QPoint angle : {QPoint(0, -240), QPoint(120, 0), QPoint(0, 30)}) {
        QWheelEvent e({10, 20}, view.mapToGlobal(QPointF(10, 20)), {}, angle, Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(&view, &e);
    }
    const QList<QList<int>> expected{{1, 100, 50, 0, 0}, {8, 120, 60, 0, 0}, {2, 120, 60, 0, 0}, {3, 1, 2, 0, 0},
                                     {4, 1, 2, 0, 0},    {5, 3, 4, 0, 0},    {6, 3, 4, 0, 0},    {7, 700, 400, 0, 0},
                                     {9, 10, 20, 0, -2}, {9, 10, 20, 1, 0}};
    EXPECT_EQ(sent, expected);
}
