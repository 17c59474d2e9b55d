#include "capture/input/linux/virtual_pointer_injector.h"

#include "common/log.h"

#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"

#include <QSocketNotifier>

#include <wayland-client.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <vector>

namespace velocast::input {

namespace {

// Linux input button codes (linux/input-event-codes.h).
constexpr uint32_t kButtonLeft = 0x110;
constexpr uint32_t kButtonRight = 0x111;
constexpr uint32_t kButtonMiddle = 0x112;
// What one wheel click scrolls, in the compositor's axis units (as a mouse wheel reports it).
constexpr double kAxisPerClick = 15.0;

uint32_t buttonCode(MouseButton b)
{
    switch (b) {
    case MouseButton::Left: return kButtonLeft;
    case MouseButton::Right: return kButtonRight;
    case MouseButton::Center: return kButtonMiddle;
    }
    return kButtonLeft;
}

uint32_t nowMs()
{
    using namespace std::chrono;
    return uint32_t(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

struct Output {
    wl_output *output = nullptr;
    uint32_t name = 0;
    QPoint position;
    QSize mode; // current mode, in output pixels
    int scale = 1;
};

class VirtualPointerInjector final : public InputInjector {
public:
    explicit VirtualPointerInjector(wl_display *display) : display_(display) {}

    ~VirtualPointerInjector() override
    {
        notifier_.reset();
        if (!dead_) releaseButtons();
        if (pointer_) zwlr_virtual_pointer_v1_destroy(pointer_);
        if (manager_) zwlr_virtual_pointer_manager_v1_destroy(manager_);
        for (Output &o : outputs_)
            if (o.output) wl_output_destroy(o.output);
        if (seat_) wl_seat_destroy(seat_);
        if (registry_) wl_registry_destroy(registry_);
        wl_display_flush(display_);
        wl_display_disconnect(display_);
    }

    // Reads the globals and the outputs; false, with the reason, when there is no protocol.
    bool init(QString *why)
    {
        registry_ = wl_display_get_registry(display_);
        wl_registry_add_listener(registry_, &kRegistry, this);
        // One round trip for the globals, one for the outputs' description.
        if (wl_display_roundtrip(display_) < 0 || wl_display_roundtrip(display_) < 0) {
            *why = QStringLiteral("the Wayland compositor closed the connection");
            return false;
        }
        if (!manager_) {
            *why = QStringLiteral("the Wayland compositor offers no virtual-pointer protocol (zwlr_virtual_pointer_manager_v1)");
            return false;
        }
        notifier_ = std::make_unique<QSocketNotifier>(wl_display_get_fd(display_), QSocketNotifier::Read);
        QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] {
            if (wl_display_dispatch(display_) < 0) lost();
        });
        makePointer(nullptr);
        return flush();
    }

    QString name() const override { return QStringLiteral("wlroots"); }

    void setCaptureStream(const CaptureStream &stream) override
    {
        if (dead_) return;
        area_ = stream.area;
        // The output the captured picture is: the one at its position, else the first.
        const Output *target = outputs_.empty() ? nullptr : &outputs_.front();
        for (const Output &o : outputs_)
            if (o.position == area_.topLeft()) target = &o;
        if (managerVersion_ >= 2 && target) {
            if (target->output != mappedOutput_) {
                releaseButtons();
                makePointer(target->output);
                mappedOutput_ = target->output;
            }
            if (area_.isEmpty()) area_ = QRect(target->position, logicalSize(*target));
        }
        flush();
    }

    void moveTo(QPointF position) override
    {
        if (dead_) return;
        // Positions are over the captured picture; without an output to map to, over the
        // whole output layout (the picture's offset added).
        QRect frame = mappedOutput_ ? QRect(QPoint(0, 0), area_.size()) : layout();
        QPointF p = mappedOutput_ ? position : position + QPointF(area_.topLeft() - frame.topLeft());
        if (frame.isEmpty()) return;
        if (!std::isfinite(p.x()) || !std::isfinite(p.y())) return;
        // The protocol has no place outside its extent: the edge stands for beyond it.
        const uint32_t x = uint32_t(std::clamp(std::lround(p.x()), 0L, long(frame.width() - 1)));
        const uint32_t y = uint32_t(std::clamp(std::lround(p.y()), 0L, long(frame.height() - 1)));
        zwlr_virtual_pointer_v1_motion_absolute(pointer_, nowMs(), x, y, uint32_t(frame.width()), uint32_t(frame.height()));
        zwlr_virtual_pointer_v1_frame(pointer_);
        flush();
    }

    void setButton(MouseButton button, bool pressed) override
    {
        if (dead_) return;
        sendButton(buttonCode(button), pressed);
        flush();
    }

    void click(MouseButton button, int count) override
    {
        if (dead_) return;
        for (int i = 0; i < count; ++i) {
            sendButton(buttonCode(button), true);
            sendButton(buttonCode(button), false);
        }
        flush();
    }

    void scroll(int verticalLines, int horizontalLines) override
    {
        if (dead_) return;
        // Wayland's axes grow down and right; ours are up and left.
        zwlr_virtual_pointer_v1_axis_source(pointer_, WL_POINTER_AXIS_SOURCE_WHEEL);
        const uint32_t t = nowMs();
        const auto axis = [&](uint32_t which, int lines) {
            if (lines == 0) return;
            const int steps = -lines;
            zwlr_virtual_pointer_v1_axis_discrete(pointer_, t, which, wl_fixed_from_double(steps * kAxisPerClick), steps);
        };
        axis(WL_POINTER_AXIS_VERTICAL_SCROLL, verticalLines);
        axis(WL_POINTER_AXIS_HORIZONTAL_SCROLL, horizontalLines);
        zwlr_virtual_pointer_v1_frame(pointer_);
        flush();
    }

    void typeText(const QString &text, uint64_t flags) override
    {
        Q_UNUSED(flags);
        if (!toldNoKeyboard_)
            logLine(lcCapture(), QStringLiteral("typing %1 characters dropped: the wlroots virtual pointer has no keyboard").arg(text.size()));
        toldNoKeyboard_ = true;
    }

    void releaseButtons() override
    {
        if (dead_ || !pointer_) return;
        const std::set<uint32_t> held = held_;
        for (uint32_t code : held) sendButton(code, false);
        flush();
    }

private:
    QSize logicalSize(const Output &o) const { return o.mode / std::max(1, o.scale); }

    // The bounding box of every output, in compositor (logical) pixels.
    QRect layout() const
    {
        QRect box;
        for (const Output &o : outputs_) box = box.united(QRect(o.position, logicalSize(o)));
        return box;
    }

    void makePointer(wl_output *output)
    {
        if (pointer_) zwlr_virtual_pointer_v1_destroy(pointer_);
        held_.clear();
        pointer_ = output ? zwlr_virtual_pointer_manager_v1_create_virtual_pointer_with_output(manager_, seat_, output)
                          : zwlr_virtual_pointer_manager_v1_create_virtual_pointer(manager_, seat_);
    }

    void sendButton(uint32_t code, bool pressed)
    {
        zwlr_virtual_pointer_v1_button(pointer_, nowMs(), code, pressed ? WL_POINTER_BUTTON_STATE_PRESSED : WL_POINTER_BUTTON_STATE_RELEASED);
        zwlr_virtual_pointer_v1_frame(pointer_);
        if (pressed)
            held_.insert(code);
        else
            held_.erase(code);
    }

    bool flush()
    {
        if (dead_) return false;
        if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
            lost();
            return false;
        }
        return true;
    }

    void lost()
    {
        if (dead_) return;
        dead_ = true;
        notifier_.reset();
        logLine(lcCapture(), QStringLiteral("the Wayland compositor closed the virtual pointer's connection (error %1); pointer events are dropped")
                                 .arg(wl_display_get_error(display_)));
    }

    static void onGlobal(void *data, wl_registry *registry, uint32_t name, const char *interface, uint32_t version)
    {
        auto *self = static_cast<VirtualPointerInjector *>(data);
        const QByteArray iface(interface);
        if (iface == wl_seat_interface.name && !self->seat_) {
            self->seat_ = static_cast<wl_seat *>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
        } else if (iface == wl_output_interface.name) {
            Output o;
            o.name = name;
            o.output = static_cast<wl_output *>(wl_registry_bind(registry, name, &wl_output_interface, std::min(version, 2u)));
            self->outputs_.push_back(o);
            wl_output_add_listener(self->outputs_.back().output, &kOutput, self);
        } else if (iface == zwlr_virtual_pointer_manager_v1_interface.name && !self->manager_) {
            self->managerVersion_ = std::min(version, 2u);
            self->manager_ = static_cast<zwlr_virtual_pointer_manager_v1 *>(
                wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, self->managerVersion_));
        }
    }
    static void onGlobalRemove(void *data, wl_registry *, uint32_t name)
    {
        auto *self = static_cast<VirtualPointerInjector *>(data);
        auto it = std::find_if(self->outputs_.begin(), self->outputs_.end(), [name](const Output &o) { return o.name == name; });
        if (it == self->outputs_.end()) return;
        if (self->mappedOutput_ == it->output) {
            // Mapped to an output that went away: over the whole layout from now on.
            self->makePointer(nullptr);
            self->mappedOutput_ = nullptr;
        }
        wl_output_destroy(it->output);
        self->outputs_.erase(it);
    }
    Output *find(wl_output *output)
    {
        for (Output &o : outputs_)
            if (o.output == output) return &o;
        return nullptr;
    }
    static void onGeometry(void *data, wl_output *output, int32_t x, int32_t y, int32_t, int32_t, int32_t, const char *, const char *, int32_t)
    {
        if (Output *o = static_cast<VirtualPointerInjector *>(data)->find(output)) o->position = QPoint(x, y);
    }
    static void onMode(void *data, wl_output *output, uint32_t flags, int32_t width, int32_t height, int32_t)
    {
        if (!(flags & WL_OUTPUT_MODE_CURRENT)) return;
        if (Output *o = static_cast<VirtualPointerInjector *>(data)->find(output)) o->mode = QSize(width, height);
    }
    static void onDone(void *, wl_output *) {}
    static void onScale(void *data, wl_output *output, int32_t factor)
    {
        if (Output *o = static_cast<VirtualPointerInjector *>(data)->find(output)) o->scale = std::max(1, factor);
    }

    static constexpr wl_registry_listener kRegistry{&onGlobal, &onGlobalRemove};
    static constexpr wl_output_listener kOutput{&onGeometry, &onMode, &onDone, &onScale, nullptr, nullptr}; // name, description: version 4

    wl_display *display_;
    wl_registry *registry_ = nullptr;
    wl_seat *seat_ = nullptr;
    zwlr_virtual_pointer_manager_v1 *manager_ = nullptr;
    uint32_t managerVersion_ = 0;
    zwlr_virtual_pointer_v1 *pointer_ = nullptr;
    std::vector<Output> outputs_;
    std::unique_ptr<QSocketNotifier> notifier_;
    QRect area_;
    wl_output *mappedOutput_ = nullptr; // the output absolute motion is mapped to, if any
    std::set<uint32_t> held_;
    bool dead_ = false;
    bool toldNoKeyboard_ = false;
};

} // namespace

std::unique_ptr<InputInjector> makeVirtualPointerInjector(QString *why)
{
    wl_display *display = wl_display_connect(nullptr);
    if (!display) {
        *why = QStringLiteral("cannot reach the Wayland compositor \"%1\"").arg(qEnvironmentVariable("WAYLAND_DISPLAY"));
        return nullptr;
    }
    auto injector = std::make_unique<VirtualPointerInjector>(display);
    if (!injector->init(why)) return nullptr;
    return injector;
}

} // namespace velocast::input
