#!/usr/bin/python3
"""A desktop-portal backend for tests: the ScreenCast and RemoteDesktop backend interfaces,
answered without a dialog by forwarding to a headless mutter's own D-Bus API.

Every call is appended to $VC_PORTAL_LOG as one JSON object per line. $VC_PORTAL_CONTROL
holds words that change the next Start: "cancel" (the person cancels the dialog) and
"chooser-fails" (the dialog cannot be shown: only a session restored from its token
starts). The extra interface org.velocast.PortalTest has CloseSessions(), which stops
the compositor's sessions the way the desktop's own "stop sharing" indicator does.
"""
import json
import os
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

BUS_NAME = "org.freedesktop.impl.portal.desktop.test"
VENDOR = "velocast-test"
CONNECTOR = "Meta-0"

XML = """
<node>
 <interface name="org.freedesktop.impl.portal.ScreenCast">
  <method name="CreateSession"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <method name="SelectSources"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <method name="Start"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="s" direction="in"/><arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <property name="AvailableSourceTypes" type="u" access="read"/>
  <property name="AvailableCursorModes" type="u" access="read"/>
  <property name="version" type="u" access="read"/>
 </interface>
 <interface name="org.freedesktop.impl.portal.RemoteDesktop">
  <method name="CreateSession"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <method name="SelectDevices"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <method name="Start"><arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
   <arg type="s" direction="in"/><arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/></method>
  <method name="NotifyPointerMotion"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="d" direction="in"/><arg type="d" direction="in"/></method>
  <method name="NotifyPointerMotionAbsolute"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="u" direction="in"/><arg type="d" direction="in"/><arg type="d" direction="in"/></method>
  <method name="NotifyPointerButton"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/><arg type="u" direction="in"/></method>
  <method name="NotifyPointerAxis"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="d" direction="in"/><arg type="d" direction="in"/></method>
  <method name="NotifyPointerAxisDiscrete"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="u" direction="in"/><arg type="i" direction="in"/></method>
  <method name="NotifyKeyboardKeycode"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/><arg type="u" direction="in"/></method>
  <method name="NotifyKeyboardKeysym"><arg type="o" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/><arg type="u" direction="in"/></method>
  <property name="AvailableDeviceTypes" type="u" access="read"/>
  <property name="version" type="u" access="read"/>
 </interface>
 <interface name="org.velocast.PortalTest">
  <method name="CloseSessions"><arg type="u" direction="out"/></method>
 </interface>
</node>
"""
SESSION_XML = """
<node><interface name="org.freedesktop.impl.portal.Session">
 <method name="Close"/><signal name="Closed"/><property name="version" type="u" access="read"/>
</interface></node>
"""

bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)
node = Gio.DBusNodeInfo.new_for_xml(XML)
session_node = Gio.DBusNodeInfo.new_for_xml(SESSION_XML)
sessions = {}  # portal session handle -> dict


def log(call, **fields):
    fields["call"] = call
    with open(os.environ["VC_PORTAL_LOG"], "a", encoding="utf-8") as f:
        f.write(json.dumps(fields) + "\n")


def control_words():
    try:
        with open(os.environ["VC_PORTAL_CONTROL"], encoding="utf-8") as f:
            return f.read().split()
    except OSError:
        return []


def mutter(path, iface, method, args=None, reply=None):
    return bus.call_sync(mutter_name(iface), path, iface, method,
                         args, GLib.VariantType.new(reply) if reply else None, Gio.DBusCallFlags.NONE, -1, None)


def mutter_name(iface):
    return "org.gnome.Mutter.RemoteDesktop" if "RemoteDesktop" in iface else "org.gnome.Mutter.ScreenCast"


def close_session(handle, emit):
    s = sessions.pop(handle, None)
    if not s:
        return
    for sub in s.get("subs", []):
        bus.signal_unsubscribe(sub)
    try:
        if s.get("rd_path"):
            mutter(s["rd_path"], "org.gnome.Mutter.RemoteDesktop.Session", "Stop")
        elif s.get("sc_path"):
            mutter(s["sc_path"], "org.gnome.Mutter.ScreenCast.Session", "Stop")
    except GLib.Error:
        pass  # already stopped by the compositor
    if emit:
        bus.emit_signal(None, handle, "org.freedesktop.impl.portal.Session", "Closed", None)
    bus.unregister_object(s["reg"])


def session_call(conn, sender, path, iface, method, params, inv):
    if method == "Close":
        log("Session.Close")
        close_session(path, emit=False)
    inv.return_value(None)


def session_prop(conn, sender, path, iface, prop):
    return GLib.Variant("u", 1)


def create_session(kind, session_handle, options):
    reg = bus.register_object(session_handle, session_node.interfaces[0], session_call, session_prop, None)
    sessions[session_handle] = {"kind": kind, "reg": reg, "options": {}, "subs": []}
    return GLib.Variant("(ua{sv})", (0, {"session_id": GLib.Variant("s", session_handle)}))


def restore_ok(data):
    return data is not None and data[0] == VENDOR and data[2] == CONNECTOR


def start(inv, session_handle, options):
    s = sessions.get(session_handle)
    if not s:
        inv.return_value(GLib.Variant("(ua{sv})", (2, {})))
        return
    sel = s["options"]
    restored = restore_ok(sel.get("restore_data"))
    words = control_words()
    if not restored and "cancel" in words:
        log("Start.answer", response=1)
        inv.return_value(GLib.Variant("(ua{sv})", (1, {})))
        return
    if not restored and "chooser-fails" in words:
        log("Start.answer", response=2)
        inv.return_value(GLib.Variant("(ua{sv})", (2, {})))
        return
    try:
        props = {}
        if s["kind"] == "rd":
            rd_path = mutter("/org/gnome/Mutter/RemoteDesktop", "org.gnome.Mutter.RemoteDesktop", "CreateSession",
                             None, "(o)").unpack()[0]
            s["rd_path"] = rd_path
            sid = bus.call_sync("org.gnome.Mutter.RemoteDesktop", rd_path, "org.freedesktop.DBus.Properties", "Get",
                                GLib.Variant("(ss)", ("org.gnome.Mutter.RemoteDesktop.Session", "SessionId")),
                                GLib.VariantType.new("(v)"), Gio.DBusCallFlags.NONE, -1, None).unpack()[0]
            props["remote-desktop-session-id"] = GLib.Variant("s", sid)
            closed_path, closed_iface = rd_path, "org.gnome.Mutter.RemoteDesktop.Session"
        sc_path = mutter("/org/gnome/Mutter/ScreenCast", "org.gnome.Mutter.ScreenCast", "CreateSession",
                         GLib.Variant("(a{sv})", (props,)), "(o)").unpack()[0]
        s["sc_path"] = sc_path
        if s["kind"] != "rd":
            closed_path, closed_iface = sc_path, "org.gnome.Mutter.ScreenCast.Session"
        cursor = 1 if sel.get("cursor_mode", 1) == 2 else 0  # mutter: 0 hidden, 1 embedded
        stream_path = mutter(sc_path, "org.gnome.Mutter.ScreenCast.Session", "RecordMonitor",
                             GLib.Variant("(sa{sv})", (CONNECTOR, {"cursor-mode": GLib.Variant("u", cursor)})),
                             "(o)").unpack()[0]
        s["stream_path"] = stream_path
    except GLib.Error as e:
        log("Start.error", message=e.message)
        inv.return_value(GLib.Variant("(ua{sv})", (2, {})))
        return

    def on_closed(*_):
        log("Session.ClosedByCompositor")
        close_session(session_handle, emit=True)

    s["subs"].append(bus.signal_subscribe("org.gnome.Mutter." + ("RemoteDesktop" if s["kind"] == "rd" else "ScreenCast"),
                                          closed_iface, "Closed", closed_path, None, Gio.DBusSignalFlags.NONE, on_closed))

    def on_added(conn, sender, path, iface, signal, params):
        node_id = params.unpack()[0]
        s["node"] = node_id
        try:
            p = bus.call_sync("org.gnome.Mutter.ScreenCast", stream_path, "org.freedesktop.DBus.Properties", "Get",
                              GLib.Variant("(ss)", ("org.gnome.Mutter.ScreenCast.Stream", "Parameters")),
                              GLib.VariantType.new("(v)"), Gio.DBusCallFlags.NONE, -1, None).unpack()[0]
        except GLib.Error:
            p = {}
        stream = {"source_type": GLib.Variant("u", 1)}
        if "position" in p:
            stream["position"] = GLib.Variant("(ii)", tuple(p["position"]))
        if "size" in p:
            stream["size"] = GLib.Variant("(ii)", tuple(p["size"]))
        results = {"streams": GLib.Variant("a(ua{sv})", [(node_id, stream)])}
        persist = sel.get("persist_mode", 0)
        if persist:
            results["persist_mode"] = GLib.Variant("u", persist)
            results["restore_data"] = GLib.Variant("(suv)", (VENDOR, 1, GLib.Variant("s", CONNECTOR)))
        if s["kind"] == "rd":
            results["devices"] = GLib.Variant("u", s.get("devices", 3))
        log("Start.answer", response=0, node=node_id, restored=restored, size=list(p.get("size", ())))
        inv.return_value(GLib.Variant("(ua{sv})", (0, results)))

    s["subs"].append(bus.signal_subscribe("org.gnome.Mutter.ScreenCast", "org.gnome.Mutter.ScreenCast.Stream",
                                          "PipeWireStreamAdded", stream_path, None, Gio.DBusSignalFlags.NONE, on_added))
    try:
        if s["kind"] == "rd":
            mutter(s["rd_path"], "org.gnome.Mutter.RemoteDesktop.Session", "Start")
        else:
            mutter(sc_path, "org.gnome.Mutter.ScreenCast.Session", "Start")
    except GLib.Error as e:
        log("Start.error", message=e.message)
        inv.return_value(GLib.Variant("(ua{sv})", (2, {})))


def plain(options):
    out = {}
    for k, v in options.items():
        out[k] = v if isinstance(v, (int, float, str, bool)) else repr(v)
    return out


def method_call(conn, sender, path, iface, method, params, inv):
    args = params.unpack()
    short = iface.split(".")[-1] + "." + method
    if iface == "org.velocast.PortalTest":
        handles = [h for h, s in sessions.items() if s.get("sc_path")]
        for h in handles:
            mutter(sessions[h].get("rd_path") or sessions[h]["sc_path"],
                   "org.gnome.Mutter.RemoteDesktop.Session" if sessions[h].get("rd_path")
                   else "org.gnome.Mutter.ScreenCast.Session", "Stop")
        log(short, count=len(handles))
        inv.return_value(GLib.Variant("(u)", (len(handles),)))
        return
    if method == "CreateSession":
        log(short, session=args[1])
        inv.return_value(create_session("rd" if "RemoteDesktop" in iface else "sc", args[1], args[3]))
        return
    if method in ("SelectSources", "SelectDevices"):
        options = args[3]
        log(short, session=args[1], options=plain(options), restore="restore_data" in options)
        s = sessions.get(args[1])
        if s is None:
            inv.return_value(GLib.Variant("(ua{sv})", (2, {})))
            return
        if method == "SelectDevices":
            s["devices"] = options.get("types", 3)
            if "restore_data" in options:
                s["options"]["restore_data"] = options["restore_data"]
            if "persist_mode" in options:
                s["options"].setdefault("persist_mode", options["persist_mode"])
        else:
            s["options"].update(options)
        inv.return_value(GLib.Variant("(ua{sv})", (0, {})))
        return
    if method == "Start":
        log(short, session=args[1], options=plain(args[4]))
        start(inv, args[1], args[4])
        return
    # Input: forwarded to the compositor's session, logged with its arguments.
    s = sessions.get(args[0])
    log(short, args=list(args[2:]))
    if not s or not s.get("rd_path"):
        inv.return_value(None)
        return
    rd, iface_rd = s["rd_path"], "org.gnome.Mutter.RemoteDesktop.Session"
    try:
        if method == "NotifyPointerMotionAbsolute":
            mutter(rd, iface_rd, method, GLib.Variant("(sdd)", (s["stream_path"], args[3], args[4])))
        elif method == "NotifyPointerMotion":
            mutter(rd, iface_rd, method, GLib.Variant("(dd)", (args[2], args[3])))
        elif method == "NotifyPointerButton":
            mutter(rd, iface_rd, method, GLib.Variant("(ib)", (args[2], bool(args[3]))))
        elif method == "NotifyPointerAxisDiscrete":
            mutter(rd, iface_rd, method, GLib.Variant("(ui)", (args[2], args[3])))
        elif method == "NotifyPointerAxis":
            mutter(rd, iface_rd, method, GLib.Variant("(ddu)", (args[2], args[3], 0)))
        elif method == "NotifyKeyboardKeysym":
            mutter(rd, iface_rd, method, GLib.Variant("(ub)", (args[2] & 0xFFFFFFFF, bool(args[3]))))
        elif method == "NotifyKeyboardKeycode":
            mutter(rd, iface_rd, method, GLib.Variant("(ub)", (args[2] & 0xFFFFFFFF, bool(args[3]))))
    except GLib.Error as e:
        log("Notify.error", message=e.message)
    inv.return_value(None)


def get_property(conn, sender, path, iface, prop):
    if prop == "AvailableSourceTypes":
        return GLib.Variant("u", 1)
    if prop == "AvailableCursorModes":
        return GLib.Variant("u", 1 | 2)
    if prop == "AvailableDeviceTypes":
        return GLib.Variant("u", 1 | 2)
    if prop == "version":
        return GLib.Variant("u", 4 if "ScreenCast" in iface else 1)
    return None


for interface in node.interfaces:
    bus.register_object("/org/freedesktop/portal/desktop", interface, method_call, get_property, None)


def on_name(*_):
    print("portal test backend ready", flush=True)


def on_lost(*_):
    print("portal test backend: bus name lost", file=sys.stderr, flush=True)
    loop.quit()


Gio.bus_own_name_on_connection(bus, BUS_NAME, Gio.BusNameOwnerFlags.NONE, on_name, on_lost)
loop = GLib.MainLoop()
loop.run()
