#!/usr/bin/python3
"""A stand-in for bluetoothd on a private D-Bus bus, for the BlueZ backend's tests.

It owns org.bluez and offers the part of BlueZ's D-Bus API (org.bluez.Adapter1,
Device1, GattService1, GattCharacteristic1, the ObjectManager at "/") that the
backend uses, with BlueZ's observable behaviour where the backend depends on it:

- one discovery session per client: a second StartDiscovery from the same
  connection fails with org.bluez.Error.InProgress, a StopDiscovery without one
  with org.bluez.Error.Failed;
- devices appear by InterfacesAdded once discovery runs; one name arrives later
  by PropertiesChanged; an unnamed device has only an Alias (its address), as
  BlueZ gives every device;
- Connect replies once Connected is true; the GATT objects and
  ServicesResolved follow shortly after; Disconnect cancels a pending Connect
  and removes the GATT objects again;
- the strap answers the PMD settings request and, after the start command,
  streams a recording as ECG frames (73 samples each) by Value changes.

Every call worth checking goes to the --log file, one line each, so tests can
tell what the backend asked for. Runs until killed; prints "ready" once it owns
the name.
"""
import argparse
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
SERVICE = "org.bluez.GattService1"
CHARACTERISTIC = "org.bluez.GattCharacteristic1"

# BlueZ reports UUIDs in lower case; upper case here checks that the backend
# compares them without regard to case.
PMD_SERVICE = "FB005C80-02E7-F387-1CAD-8ACD2D8DF0C8"
PMD_CONTROL = "FB005C81-02E7-F387-1CAD-8ACD2D8DF0C8"
PMD_DATA = "FB005C82-02E7-F387-1CAD-8ACD2D8DF0C8"
HEART_RATE_SERVICE = "0000180d-0000-1000-8000-00805f9b34fb"
HEART_RATE_MEASUREMENT = "00002a37-0000-1000-8000-00805f9b34fb"

ADAPTER_PATH = "/org/bluez/hci0"
SAMPLES_PER_FRAME = 73  # what an H10 sends at 130 Hz
SAMPLE_RATE = 130

# The neighbourhood: address, advertised name (None: unnamed), seconds after
# the first StartDiscovery at which it is seen (None: BlueZ knew it already),
# the name that arrives later (seconds, name), and its GATT services.
NEIGHBOURS = [
    ("0A:11:22:33:44:55", "Paired Band", None, None, []),
    ("22:33:44:55:66:77", None, 0.2, None, []),
    ("5C:31:3E:00:00:02", None, 0.4, (2.0, "Heart Sensor"), ["hr"]),
    ("F0:13:C3:AB:CD:12", "Polar H10 ABCDEF12", 0.6, None, ["hr", "pmd"]),
    ("7E:00:00:00:00:09", None, 0.8, None, []),
]


class Failed(dbus.DBusException):
    _dbus_error_name = "org.bluez.Error.Failed"


class NotReady(dbus.DBusException):
    _dbus_error_name = "org.bluez.Error.NotReady"


class InProgress(dbus.DBusException):
    _dbus_error_name = "org.bluez.Error.InProgress"


class Fake:
    """Shared state: the bus, the object registry, the log and the options."""

    def __init__(self, bus, args):
        self.bus = bus
        self.args = args
        self.objects = {}  # path -> BluezObject
        self.log_file = open(args.log, "a", buffering=1) if args.log else None
        self.recording = read_recording(args.recording) if args.recording else []
        self.root = Root(self)

    def log(self, *words):
        if self.log_file:
            self.log_file.write(" ".join(str(w) for w in words) + "\n")

    def export(self, obj):
        self.objects[obj.path] = obj
        self.root.InterfacesAdded(obj.path, obj.all_props())

    def unexport(self, obj):
        if self.objects.pop(obj.path, None) is None:
            return
        self.root.InterfacesRemoved(obj.path, dbus.Array(obj.props.keys(), signature="s"))
        obj.remove_from_connection()


def read_recording(path):
    samples = []
    with open(path) as f:
        for line in f:
            field = line.split(",")[0].strip()
            try:
                samples.append(int(round(float(field))))
            except ValueError:
                continue
    return samples


def ecg_frame(timestamp_ns, samples):
    frame = bytearray([0]) + timestamp_ns.to_bytes(8, "little") + bytearray([0])
    for s in samples:
        frame += (s & 0xFFFFFF).to_bytes(3, "little")
    return dbus.ByteArray(bytes(frame))


class Root(dbus.service.Object):
    def __init__(self, fake):
        super().__init__(fake.bus, "/")
        self.fake = fake

    @dbus.service.method(OBJECT_MANAGER, out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        return {path: obj.all_props() for path, obj in self.fake.objects.items()}

    @dbus.service.signal(OBJECT_MANAGER, signature="oa{sa{sv}}")
    def InterfacesAdded(self, path, interfaces):
        pass

    @dbus.service.signal(OBJECT_MANAGER, signature="oas")
    def InterfacesRemoved(self, path, interfaces):
        pass


class BluezObject(dbus.service.Object):
    """An object with one BlueZ interface and its properties."""

    def __init__(self, fake, path, interface, props):
        super().__init__(fake.bus, path)
        self.fake = fake
        self.path = path
        self.interface = interface
        self.props = {interface: dict(props)}

    def all_props(self):
        return {i: dbus.Dictionary(p, signature="sv") for i, p in self.props.items()}

    def set(self, **changes):
        self.props[self.interface].update(changes)
        self.PropertiesChanged(self.interface, dbus.Dictionary(changes, signature="sv"),
                               dbus.Array([], signature="s"))

    def get(self, name):
        return self.props[self.interface].get(name)

    @dbus.service.method(PROPERTIES, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return self.props[interface][name]

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return dbus.Dictionary(self.props.get(interface, {}), signature="sv")

    @dbus.service.signal(PROPERTIES, signature="sa{sv}as")
    def PropertiesChanged(self, interface, changed, invalidated):
        pass


class Adapter(BluezObject):
    def __init__(self, fake, powered):
        super().__init__(fake, ADAPTER_PATH, ADAPTER, {
            "Address": dbus.String("00:1A:7D:DA:71:13"),
            "Powered": dbus.Boolean(powered),
            "Discovering": dbus.Boolean(False),
        })
        self.sessions = set()  # unique names of clients discovering
        self.neighbours_started = False

    @dbus.service.method(ADAPTER, in_signature="a{sv}", sender_keyword="sender")
    def SetDiscoveryFilter(self, filter, sender=None):
        self.fake.log("SetDiscoveryFilter", " ".join(f"{k}={v}" for k, v in sorted(filter.items())))

    @dbus.service.method(ADAPTER, sender_keyword="sender")
    def StartDiscovery(self, sender=None):
        if not self.get("Powered"):
            self.fake.log("StartDiscovery refused: powered off")
            raise NotReady("Resource Not Ready")
        if sender in self.sessions:
            self.fake.log("StartDiscovery refused: already discovering")
            raise InProgress("Operation already in progress")
        self.sessions.add(sender)
        self.fake.log("StartDiscovery")
        self.set(Discovering=dbus.Boolean(True))
        if not self.neighbours_started:
            self.neighbours_started = True
            for n in NEIGHBOURS:
                if n[2] is not None:
                    GLib.timeout_add(int(n[2] * 1000), self.sighting, n)

    @dbus.service.method(ADAPTER, sender_keyword="sender")
    def StopDiscovery(self, sender=None):
        if sender not in self.sessions:
            self.fake.log("StopDiscovery refused: no discovery started")
            raise Failed("No discovery started")
        self.sessions.discard(sender)
        self.fake.log("StopDiscovery")
        if not self.sessions:
            self.set(Discovering=dbus.Boolean(False))

    def sighting(self, neighbour):
        device = Device(self.fake, *neighbour)
        self.fake.export(device)
        if neighbour[3]:
            delay, name = neighbour[3]
            GLib.timeout_add(int(delay * 1000), lambda: device.set(Name=dbus.String(name)) and False)
        return False


class Device(BluezObject):
    def __init__(self, fake, address, name, seen_after, late_name, services):
        path = ADAPTER_PATH + "/dev_" + address.replace(":", "_")
        props = {
            "Address": dbus.String(address),
            "AddressType": dbus.String("random"),
            "Alias": dbus.String(name or address.replace(":", "-")),
            "Connected": dbus.Boolean(False),
            "ServicesResolved": dbus.Boolean(False),
            "Paired": dbus.Boolean(False),
            "Adapter": dbus.ObjectPath(ADAPTER_PATH),
            "RSSI": dbus.Int16(-60),
        }
        if name:
            props["Name"] = dbus.String(name)
        super().__init__(fake, path, DEVICE, props)
        self.address = address
        self.services = services
        self.gatt = []  # exported GATT objects while connected
        self.pending_connect = None
        self.connects = 0
        self.control = None
        self.data = None
        self.stream_pos = 0
        self.frames = 0
        self.streaming = False

    @dbus.service.method(DEVICE, async_callbacks=("ok", "err"))
    def Connect(self, ok, err):
        self.fake.log("Connect", self.address)
        if self.get("Connected"):
            ok()
            return
        if self.pending_connect:
            err(InProgress("In Progress"))
            return
        self.connects += 1
        delay = self.fake.args.first_connect_delay_ms if self.connects == 1 else 10
        self.pending_connect = (ok, err)
        GLib.timeout_add(delay, self.link_up)

    @dbus.service.method(DEVICE)
    def Disconnect(self):
        self.fake.log("Disconnect", self.address)
        if self.pending_connect:
            self.pending_connect[1](Failed("le-connection-abort-by-local"))
            self.pending_connect = None
            self.fake.log("Connect cancelled", self.address)
        self.link_down()

    def link_up(self):
        if not self.pending_connect:
            return False
        ok = self.pending_connect[0]
        self.pending_connect = None
        self.set(Connected=dbus.Boolean(True))
        ok()
        GLib.timeout_add(self.fake.args.resolve_ms, self.resolve)
        return False

    def resolve(self):
        if not self.get("Connected"):
            return False
        handle = 0x10
        for kind in self.services:
            service_path = f"{self.path}/service{handle:04x}"
            if kind == "hr":
                self.add_gatt(Service(self.fake, service_path, self.path, HEART_RATE_SERVICE))
                self.add_gatt(Characteristic(self.fake, f"{service_path}/char{handle + 1:04x}",
                                             service_path, HEART_RATE_MEASUREMENT, self))
            else:
                self.add_gatt(Service(self.fake, service_path, self.path, PMD_SERVICE))
                self.control = Characteristic(self.fake, f"{service_path}/char{handle + 1:04x}",
                                              service_path, PMD_CONTROL, self)
                self.data = Characteristic(self.fake, f"{service_path}/char{handle + 4:04x}",
                                           service_path, PMD_DATA, self)
                self.add_gatt(self.control)
                self.add_gatt(self.data)
            handle += 0x10
        self.set(ServicesResolved=dbus.Boolean(True))
        return False

    def add_gatt(self, obj):
        self.gatt.append(obj)
        self.fake.export(obj)

    def link_down(self):
        self.streaming = False
        for obj in reversed(self.gatt):
            self.fake.unexport(obj)
        self.gatt = []
        self.control = self.data = None
        if self.get("Connected") or self.get("ServicesResolved"):
            self.set(ServicesResolved=dbus.Boolean(False), Connected=dbus.Boolean(False))

    def vanish(self):
        """Out of range for good: the link drops and BlueZ forgets the device."""
        self.fake.log("vanish", self.address)
        self.link_down()
        self.fake.unexport(self)

    def on_control_write(self, value):
        if value == b"\x01\x00":
            # Response code F0, operation 01, type 00, status 00, then the
            # sample-rate and resolution settings.
            reply = bytes([0xF0, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x82, 0x00, 0x01, 0x01, 0x0E, 0x00])
            GLib.timeout_add(20, lambda: self.control and self.control.notify(reply) and False)
        elif value[:2] == b"\x02\x00" and not self.streaming:
            GLib.timeout_add(20, lambda: self.control and self.control.notify(b"\xF0\x02\x00\x00\x00") and False)
            self.streaming = True
            self.stream_pos = 0
            self.frames = 0
            GLib.timeout_add(self.fake.args.frame_ms, self.next_frame)

    def next_frame(self):
        if not self.streaming or not self.data or not self.data.get("Notifying"):
            return False
        samples = self.fake.recording[self.stream_pos:self.stream_pos + SAMPLES_PER_FRAME]
        if not samples:
            self.fake.log("stream complete", self.frames, "frames")
            self.streaming = False
            return False
        self.stream_pos += len(samples)
        self.frames += 1
        self.data.notify(ecg_frame(self.stream_pos * 1_000_000_000 // SAMPLE_RATE, samples))
        if self.fake.args.vanish_after_frames and self.frames >= self.fake.args.vanish_after_frames:
            self.vanish()
            return False
        return True


class Service(BluezObject):
    def __init__(self, fake, path, device_path, uuid):
        super().__init__(fake, path, SERVICE, {
            "UUID": dbus.String(uuid),
            "Primary": dbus.Boolean(True),
            "Device": dbus.ObjectPath(device_path),
        })


class Characteristic(BluezObject):
    def __init__(self, fake, path, service_path, uuid, device):
        super().__init__(fake, path, CHARACTERISTIC, {
            "UUID": dbus.String(uuid),
            "Service": dbus.ObjectPath(service_path),
            "Value": dbus.ByteArray(b""),
            "Notifying": dbus.Boolean(False),
            "Flags": dbus.Array(["read", "write", "notify"], signature="s"),
        })
        self.uuid = uuid
        self.device = device

    def notify(self, value):
        if self.get("Notifying"):
            self.set(Value=dbus.ByteArray(bytes(value)))
        return True

    @dbus.service.method(CHARACTERISTIC)
    def StartNotify(self):
        self.fake.log("StartNotify", self.uuid.lower())
        self.set(Notifying=dbus.Boolean(True))

    @dbus.service.method(CHARACTERISTIC)
    def StopNotify(self):
        self.fake.log("StopNotify", self.uuid.lower())
        self.set(Notifying=dbus.Boolean(False))

    @dbus.service.method(CHARACTERISTIC, in_signature="aya{sv}")
    def WriteValue(self, value, options):
        value = bytes(value)
        self.fake.log("WriteValue", self.uuid.lower(), value.hex(), "type=" + str(options.get("type", "")))
        if self.uuid == PMD_CONTROL:
            self.device.on_control_write(value)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--address", required=True, help="D-Bus address of the private bus")
    parser.add_argument("--log", help="file for one line per call")
    parser.add_argument("--recording", help="ECG recording the strap streams (one sample a line)")
    parser.add_argument("--frame-ms", type=int, default=20, help="pause between ECG frames")
    parser.add_argument("--resolve-ms", type=int, default=50, help="connect to ServicesResolved")
    parser.add_argument("--first-connect-delay-ms", type=int, default=10,
                        help="how long the first Connect takes")
    parser.add_argument("--vanish-after-frames", type=int, default=0,
                        help="the strap drops out of range after this many frames")
    parser.add_argument("--no-adapter", action="store_true", help="BlueZ runs without an adapter")
    parser.add_argument("--powered-off", action="store_true", help="the adapter is switched off")
    args = parser.parse_args()

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(args.address)
    fake = Fake(bus, args)
    if not args.no_adapter:
        fake.export(Adapter(fake, powered=not args.powered_off))
        for n in NEIGHBOURS:
            if n[2] is None:
                fake.export(Device(fake, *n))
    name = dbus.service.BusName("org.bluez", bus, do_not_queue=True)
    print("ready", flush=True)
    try:
        GLib.MainLoop().run()
    finally:
        del name


if __name__ == "__main__":
    sys.exit(main())
