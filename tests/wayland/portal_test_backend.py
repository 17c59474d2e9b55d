#!/usr/bin/python3
"""A desktop-portal backend for tests: ScreenCast and RemoteDesktop answered without a dialog by
forwarding to a headless mutter. Every call is appended to $VC_PORTAL_LOG as a JSON line.
$VC_PORTAL_CONTROL words change the next Start: "cancel" (the person cancels), "chooser-fails"
(only a session restored from its token starts). org.velocast.PortalTest.CloseSessions() stops the
compositor's sessions the way the desktop's "stop sharing" indicator does.
"""
import json
import os

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

BUS_NAME = "org.freedesktop.impl.portal.desktop.test"
VENDOR = "velocast-test"
CONNECTOR = "Meta-0"
MUTTER_RD, MUTTER_SC = "org.gnome.Mutter.RemoteDesktop", "org.gnome.Mutter.ScreenCast"

# Interfaces: method -> (in, out) argument types, and the read-only "u" properties' values.
REQUEST = ("o o s a{sv}", "u a{sv}")
START = ("o o s s a{sv}", "u a{sv}")
INTERFACES = {
    "org.freedesktop.impl.portal.ScreenCast": (
        {"CreateSession": REQUEST, "SelectSources": REQUEST, "Start": START},
        {"AvailableSourceTypes": 1, "AvailableCursorModes": 1 | 2, "version": 4}),
    "org.freedesktop.impl.portal.RemoteDesktop": (
        {"CreateSession": REQUEST, "SelectDevices": REQUEST, "Start": START,
         "NotifyPointerMotionAbsolute": ("o a{sv} u d d", ""), "NotifyPointerButton": ("o a{sv} i u", ""),
         "NotifyPointerAxisDiscrete": ("o a{sv} u i", ""), "NotifyKeyboardKeysym": ("o a{sv} i u", "")},
        {"AvailableDeviceTypes": 1 | 2, "version": 1}),
    "org.velocast.PortalTest": ({"CloseSessions": ("", "u")}, {}),
}
# Input: the compositor's signature and arguments for each portal call (args as received).
FORWARD = {
    "NotifyPointerMotionAbsolute": ("(sdd)", lambda s, a: (s["stream_path"], a[3], a[4])),
    "NotifyPointerButton": ("(ib)", lambda s, a: (a[2], bool(a[3]))),
    "NotifyPointerAxisDiscrete": ("(ui)", lambda s, a: (a[2], a[3])),
    "NotifyKeyboardKeysym": ("(ub)", lambda s, a: (a[2] & 0xFFFFFFFF, bool(a[3]))),
}


def introspection(interfaces):
    out = ["<node>"]
    for name, (methods, props) in interfaces.items():
        out.append(f'<interface name="{name}">')
        for method, (ins, outs) in methods.items():
            args = [f'<arg type="{t}" direction="in"/>' for t in ins.split()]
            args += [f'<arg type="{t}" direction="out"/>' for t in outs.split()]
            out.append(f'<method name="{method}">{"".join(args)}</method>')
        out += [f'<property name="{p}" type="u" access="read"/>' for p in props]
        out.append("</interface>")
    return "\n".join(out + ["</node>"])


bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)
node = Gio.DBusNodeInfo.new_for_xml(introspection(INTERFACES))
session_node = Gio.DBusNodeInfo.new_for_xml(introspection({"org.freedesktop.impl.portal.Session": ({"Close": ("", "")}, {"version": 1})}))
sessions = {}  # portal session handle -> dict


def log(call, **fields):
    fields["call"] = call
    with open(os.environ["VC_PORTAL_LOG"], "a", encoding="utf-8") as f:
        f.write(json.dumps(fields, default=repr) + "\n")


def control_words():
    with open(os.environ["VC_PORTAL_CONTROL"], encoding="utf-8") as f:
        return f.read().split()


def mutter(path, iface, method, args=None, reply=None):
    name = MUTTER_RD if "RemoteDesktop" in iface else MUTTER_SC
    return bus.call_sync(name, path, iface, method, args, GLib.VariantType.new(reply) if reply else None,
                         Gio.DBusCallFlags.NONE, -1, None)


def mutter_property(name, path, iface, prop):
    return bus.call_sync(name, path, "org.freedesktop.DBus.Properties", "Get", GLib.Variant("(ss)", (iface, prop)),
                         GLib.VariantType.new("(v)"), Gio.DBusCallFlags.NONE, -1, None).unpack()[0]


def stop_in_compositor(s):  # the remote-desktop session holds the cast
    if s.get("rd_path"):
        mutter(s["rd_path"], MUTTER_RD + ".Session", "Stop")
    elif s.get("sc_path"):
        mutter(s["sc_path"], MUTTER_SC + ".Session", "Stop")


def close_session(handle, emit):
    s = sessions.pop(handle, None)
    if not s:
        return
    for sub in s["subs"]:
        bus.signal_unsubscribe(sub)
    try:
        stop_in_compositor(s)
    except GLib.Error:
        pass  # already stopped by the compositor
    if emit:
        bus.emit_signal(None, handle, "org.freedesktop.impl.portal.Session", "Closed", None)
    bus.unregister_object(s["reg"])


def session_call(conn, sender, path, iface, method, params, inv):  # Close, its only method
    log("Session.Close")
    close_session(path, emit=False)
    inv.return_value(None)


def create_session(kind, session_handle):
    reg = bus.register_object(session_handle, session_node.interfaces[0], session_call,
                              lambda *_: GLib.Variant("u", 1), None)
    sessions[session_handle] = {"kind": kind, "reg": reg, "options": {}, "subs": []}
    return GLib.Variant("(ua{sv})", (0, {"session_id": GLib.Variant("s", session_handle)}))


def answer(inv, response, results=None):
    inv.return_value(GLib.Variant("(ua{sv})", (response, results or {})))


def start(inv, session_handle):
    s = sessions.get(session_handle)
    if not s:
        answer(inv, 2)
        return
    sel = s["options"]
    data = sel.get("restore_data")
    restored = data is not None and data[0] == VENDOR and data[2] == CONNECTOR
    words = control_words()
    for word, response in (("cancel", 1), ("chooser-fails", 2)):
        if not restored and word in words:
            answer(inv, response)
            return
    rd = s["kind"] == "rd"
    try:
        props = {}
        if rd:
            s["rd_path"] = mutter("/org/gnome/Mutter/RemoteDesktop", MUTTER_RD, "CreateSession", reply="(o)").unpack()[0]
            sid = mutter_property(MUTTER_RD, s["rd_path"], MUTTER_RD + ".Session", "SessionId")
            props["remote-desktop-session-id"] = GLib.Variant("s", sid)
        sc_path = mutter("/org/gnome/Mutter/ScreenCast", MUTTER_SC, "CreateSession",
                         GLib.Variant("(a{sv})", (props,)), "(o)").unpack()[0]
        s["sc_path"] = sc_path
        cursor = 1 if sel.get("cursor_mode", 1) == 2 else 0  # mutter: 0 hidden, 1 embedded
        stream_path = mutter(sc_path, MUTTER_SC + ".Session", "RecordMonitor",
                             GLib.Variant("(sa{sv})", (CONNECTOR, {"cursor-mode": GLib.Variant("u", cursor)})),
                             "(o)").unpack()[0]
        s["stream_path"] = stream_path
    except GLib.Error as e:
        log("Start.error", message=e.message)
        answer(inv, 2)
        return

    def on_closed(*_):
        close_session(session_handle, emit=True)

    owner = MUTTER_RD if rd else MUTTER_SC
    s["subs"].append(bus.signal_subscribe(owner, owner + ".Session", "Closed", s["rd_path"] if rd else sc_path, None,
                                          Gio.DBusSignalFlags.NONE, on_closed))

    def on_added(conn, sender, path, iface, signal, params):
        node_id = params.unpack()[0]
        p = mutter_property(MUTTER_SC, stream_path, MUTTER_SC + ".Stream", "Parameters")
        stream = {k: GLib.Variant("(ii)", tuple(p[k])) for k in ("position", "size") if k in p}
        stream["source_type"] = GLib.Variant("u", 1)
        results = {"streams": GLib.Variant("a(ua{sv})", [(node_id, stream)])}
        persist = sel.get("persist_mode", 0)
        if persist:
            results["persist_mode"] = GLib.Variant("u", persist)
            results["restore_data"] = GLib.Variant("(suv)", (VENDOR, 1, GLib.Variant("s", CONNECTOR)))
        if rd:
            results["devices"] = GLib.Variant("u", s.get("devices", 3))
        answer(inv, 0, results)

    s["subs"].append(bus.signal_subscribe(MUTTER_SC, MUTTER_SC + ".Stream", "PipeWireStreamAdded", stream_path, None,
                                          Gio.DBusSignalFlags.NONE, on_added))
    try:
        mutter(s["rd_path"] if rd else sc_path, owner + ".Session", "Start")
    except GLib.Error as e:
        log("Start.error", message=e.message)
        answer(inv, 2)


def method_call(conn, sender, path, iface, method, params, inv):
    args = params.unpack()
    short = iface.split(".")[-1] + "." + method
    if iface == "org.velocast.PortalTest":
        started = [s for s in sessions.values() if s.get("sc_path")]
        for s in started:
            stop_in_compositor(s)
        log(short, count=len(started))
        inv.return_value(GLib.Variant("(u)", (len(started),)))
    elif method == "CreateSession":
        log(short, session=args[1])
        inv.return_value(create_session("rd" if "RemoteDesktop" in iface else "sc", args[1]))
    elif method in ("SelectSources", "SelectDevices"):
        options = args[3]
        log(short, session=args[1], options=options, restore="restore_data" in options)
        s = sessions.get(args[1])
        if s is None:
            answer(inv, 2)
            return
        if method == "SelectDevices":
            s["devices"] = options.get("types", 3)  # this portal's version 1 keeps no device choice
        else:
            s["options"].update(options)
        answer(inv, 0)
    elif method == "Start":
        log(short, session=args[1], options=args[4])
        start(inv, args[1])
    else:
        # Input: logged with its arguments, forwarded to the compositor's session.
        s = sessions.get(args[0])
        log(short, args=list(args[2:]))
        if s and s.get("rd_path"):
            signature, build = FORWARD[method]
            try:
                mutter(s["rd_path"], MUTTER_RD + ".Session", method, GLib.Variant(signature, build(s, args)))
            except GLib.Error as e:
                log("Notify.error", message=e.message)
        inv.return_value(None)


for interface in node.interfaces:
    bus.register_object("/org/freedesktop/portal/desktop", interface, method_call,
                        lambda conn, sender, path, iface, prop: GLib.Variant("u", INTERFACES[iface][1][prop]), None)

Gio.bus_own_name_on_connection(bus, BUS_NAME, Gio.BusNameOwnerFlags.NONE,
                               lambda *_: print("portal test backend ready", flush=True), lambda *_: loop.quit())
loop = GLib.MainLoop()
loop.run()
