#!/usr/bin/python3
"""A stand-in for bluetoothd on a private D-Bus bus, for the BlueZ backend's tests.

It offers only the part of BlueZ's D-Bus API the backend calls, with the
behaviour it depends on: one discovery session per client (InProgress /
Failed otherwise), devices added once discovery runs, one name arriving late,
Connect replying before the GATT objects and ServicesResolved, and the strap
answering the PMD settings request, then streaming a recording as 73-sample
ECG frames; devices with the Heart Rate Service advertise it and send a
scripted run of Heart Rate Measurement values once subscribed. Each call is one line in the --log file; prints "ready" once it
owns the name.
"""
import argparse
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
ADAPTER_PATH = "/org/bluez/hci0"
# BlueZ reports UUIDs in lower case; upper case here checks that the backend
# compares them without regard to case.
PMD_SERVICE = "FB005C80-02E7-F387-1CAD-8ACD2D8DF0C8"
PMD_CONTROL = "FB005C81-02E7-F387-1CAD-8ACD2D8DF0C8"
PMD_DATA = "FB005C82-02E7-F387-1CAD-8ACD2D8DF0C8"
HRS_SERVICE = "0000180D-0000-1000-8000-00805F9B34FB"
HRS_MEASUREMENT = "00002A37-0000-1000-8000-00805F9B34FB"
SAMPLES_PER_FRAME = 73  # what an H10 sends at 130 Hz
SAMPLE_RATE = 130

# The neighbourhood: address, advertised name (None: unnamed), seconds after
# the first StartDiscovery at which it is seen (None: BlueZ knew it already),
# the name that arrives later (seconds, name), whether it has the PMD service,
# and whether it advertises and serves the Heart Rate Service.
NEIGHBOURS = [
    ("0A:11:22:33:44:55", "Paired Band", None, None, False, False),
    ("22:33:44:55:66:77", None, 0.2, None, False, True),
    ("5C:31:3E:00:00:02", None, 0.4, (2.0, "Heart Sensor"), False, True),
    ("F0:13:C3:AB:CD:12", "Polar H10 ABCDEF12", 0.6, None, True, True),
]

# Heart Rate Measurement values (hex) a strap sends once subscribed, by --hr-script.
HR_SCRIPTS = {
    "beats": [
        "16 4D 16 03",           # contact, 77 bpm, RR 790
        "17 4D 00 00 04 00 02",  # 16-bit rate, RRs 1024 and 512
        "06 48",                 # no RR this time
        "1E 48 05 00 FF 03",     # Energy Expended, RR 1023
        "16 48 16",              # cut inside its RR field: dropped
        "16 48 00 00 00 0D",     # RRs 0 and 3.25 s: passed on
        "11 48",                 # cut inside its 16-bit rate: dropped
    ],
    "no-contact": ["04 00", "04 00", "16 48 16 03"],  # off the skin, then back on
    "no-rr": ["06 48"] * 40 + ["16 48 16 03"],      # rate only, then a beat at last
}


def bluez_error(name):
    return type(name, (dbus.DBusException,), {"_dbus_error_name": "org.bluez.Error." + name})


Failed, NotReady, InProgress = bluez_error("Failed"), bluez_error("NotReady"), bluez_error("InProgress")


class Fake:
    """Shared state: the bus, the object registry, the log and the options."""

    def __init__(self, bus, args):
        self.bus, self.args, self.objects = bus, args, {}
        self.log_file = open(args.log, "a", buffering=1) if args.log else None
        self.recording = []  # a bus without a strap (the page's tests) needs none
        if args.recording:
            with open(args.recording) as f:  # one whole number a line, as in assets/
                self.recording = [int(line) for line in f if line.strip()]
        self.root = Root(self)

    def log(self, *words):
        if self.log_file:
            self.log_file.write(" ".join(str(w) for w in words) + "\n")

    def export(self, obj):
        self.objects[obj.path] = obj
        self.root.InterfacesAdded(obj.path, obj.all_props())

    def unexport(self, obj):
        if self.objects.pop(obj.path, None) is not None:
            self.root.InterfacesRemoved(obj.path, dbus.Array([obj.interface], signature="s"))
            obj.remove_from_connection()


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
        self.fake, self.path, self.interface, self.props = fake, path, interface, dict(props)

    def all_props(self):
        return {self.interface: dbus.Dictionary(self.props, signature="sv")}

    def set(self, **changes):
        self.props.update(changes)
        self.PropertiesChanged(self.interface, dbus.Dictionary(changes, signature="sv"),
                               dbus.Array([], signature="s"))

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return dbus.Dictionary(self.props if interface == self.interface else {}, signature="sv")

    @dbus.service.signal(PROPERTIES, signature="sa{sv}as")
    def PropertiesChanged(self, interface, changed, invalidated):
        pass


class Adapter(BluezObject):
    def __init__(self, fake, powered):
        super().__init__(fake, ADAPTER_PATH, "org.bluez.Adapter1", {"Powered": dbus.Boolean(powered)})
        self.sessions = set()  # unique names of clients discovering
        self.neighbours_started = False

    @dbus.service.method("org.bluez.Adapter1", in_signature="a{sv}")
    def SetDiscoveryFilter(self, filter):
        self.fake.log("SetDiscoveryFilter", " ".join(f"{k}={v}" for k, v in sorted(filter.items())))

    @dbus.service.method("org.bluez.Adapter1", sender_keyword="sender")
    def StartDiscovery(self, sender=None):
        if not self.props["Powered"]:
            self.fake.log("StartDiscovery refused: powered off")
            raise NotReady("Resource Not Ready")
        if sender in self.sessions:
            self.fake.log("StartDiscovery refused: already discovering")
            raise InProgress("Operation already in progress")
        self.sessions.add(sender)
        self.fake.log("StartDiscovery")
        if not self.neighbours_started:
            self.neighbours_started = True
            for n in NEIGHBOURS:
                if n[2] is not None:
                    GLib.timeout_add(int(n[2] * 1000), self.sighting, n)

    @dbus.service.method("org.bluez.Adapter1", sender_keyword="sender")
    def StopDiscovery(self, sender=None):
        if sender not in self.sessions:
            self.fake.log("StopDiscovery refused: no discovery started")
            raise Failed("No discovery started")
        self.sessions.discard(sender)
        self.fake.log("StopDiscovery")

    def sighting(self, neighbour):
        device = Device(self.fake, *neighbour)
        self.fake.export(device)
        if neighbour[3]:
            delay, name = neighbour[3]
            GLib.timeout_add(int(delay * 1000), lambda: device.set(Name=dbus.String(name)) and False)
        return False


class Device(BluezObject):
    def __init__(self, fake, address, name, seen_after, late_name, pmd, hrs):
        props = {
            "Address": dbus.String(address),
            "Alias": dbus.String(name or address.replace(":", "-")),
            "Connected": dbus.Boolean(False),
            "ServicesResolved": dbus.Boolean(False),
            "UUIDs": dbus.Array([HRS_SERVICE] if hrs else [], signature="s"),
        }
        if name:
            props["Name"] = dbus.String(name)
        super().__init__(fake, ADAPTER_PATH + "/dev_" + address.replace(":", "_"),
                         "org.bluez.Device1", props)
        self.address, self.pmd, self.hrs = address, pmd, hrs
        self.gatt = []  # exported GATT objects while connected
        self.control = self.data = self.measurement = None
        self.hr_sent = 0
        self.stream_pos = self.frames = self.connects = 0
        self.streaming = False

    @dbus.service.method("org.bluez.Device1", async_callbacks=("ok", "err"))
    def Connect(self, ok, err):
        self.fake.log("Connect", self.address)
        self.connects += 1
        GLib.timeout_add(self.fake.args.first_connect_ms if self.connects == 1 else 10, self.link_up, ok)

    @dbus.service.method("org.bluez.Device1")
    def Disconnect(self):
        self.fake.log("Disconnect", self.address)
        self.link_down()

    def link_up(self, ok):
        self.set(Connected=dbus.Boolean(True))
        ok()
        GLib.timeout_add(50, self.resolve)
        return False

    def resolve(self):
        if not self.props["Connected"]:
            return False
        if self.pmd:
            service = self.path + "/service0010"
            self.control = Characteristic(self.fake, service + "/char0011", PMD_CONTROL, self)
            self.data = Characteristic(self.fake, service + "/char0014", PMD_DATA, self)
            self.gatt += [BluezObject(self.fake, service, "org.bluez.GattService1",
                                      {"UUID": dbus.String(PMD_SERVICE)}), self.control, self.data]
        if self.hrs:
            service = self.path + "/service0020"
            self.measurement = Characteristic(self.fake, service + "/char0021", HRS_MEASUREMENT, self)
            self.gatt += [BluezObject(self.fake, service, "org.bluez.GattService1",
                                      {"UUID": dbus.String(HRS_SERVICE)}), self.measurement]
        for obj in self.gatt:
            self.fake.export(obj)
        self.set(ServicesResolved=dbus.Boolean(True))
        return False

    def link_down(self):
        self.streaming = False
        for obj in reversed(self.gatt):
            self.fake.unexport(obj)
        self.gatt = []
        self.control = self.data = self.measurement = None
        if self.props["Connected"] or self.props["ServicesResolved"]:
            self.set(ServicesResolved=dbus.Boolean(False), Connected=dbus.Boolean(False))

    def on_measurement_notifying(self):
        self.hr_sent = 0
        GLib.timeout_add(self.fake.args.frame_ms, self.next_heart_rate)

    def next_heart_rate(self):
        if not self.measurement or not self.measurement.props["Notifying"]:
            return False
        script = HR_SCRIPTS[self.fake.args.hr_script]
        if self.hr_sent == len(script):
            self.fake.log("hr stream complete", self.hr_sent, "values")
            return False
        self.measurement.notify(bytes.fromhex(script[self.hr_sent]))
        self.hr_sent += 1
        return True

    def on_control_write(self, value):
        if value == b"\x01\x00":
            # Response code F0, operation 01, type 00, status 00, then the
            # sample-rate and resolution settings.
            reply = bytes([0xF0, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x82, 0x00, 0x01, 0x01, 0x0E, 0x00])
            GLib.timeout_add(20, lambda: self.control and self.control.notify(reply) and False)
        elif value[:2] == b"\x02\x00" and not self.streaming:
            GLib.timeout_add(20, lambda: self.control and self.control.notify(b"\xF0\x02\x00\x00\x00") and False)
            self.streaming = True
            self.stream_pos = self.frames = 0
            GLib.timeout_add(self.fake.args.frame_ms, self.next_frame)

    def next_frame(self):
        if not self.streaming or not self.data or not self.data.props["Notifying"]:
            return False
        samples = self.fake.recording[self.stream_pos:self.stream_pos + SAMPLES_PER_FRAME]
        if not samples:
            self.fake.log("stream complete", self.frames, "frames")
            self.streaming = False
            return False
        self.stream_pos += len(samples)
        self.frames += 1
        timestamp_ns = self.stream_pos * 1_000_000_000 // SAMPLE_RATE
        frame = bytes([0]) + timestamp_ns.to_bytes(8, "little") + bytes([0])
        frame += b"".join((s & 0xFFFFFF).to_bytes(3, "little") for s in samples)
        self.data.notify(frame)
        if self.fake.args.vanish_after_frames and self.frames >= self.fake.args.vanish_after_frames:
            # Out of range for good: the link drops and BlueZ forgets the device.
            self.fake.log("vanish", self.address)
            self.link_down()
            self.fake.unexport(self)
            return False
        return True


class Characteristic(BluezObject):
    def __init__(self, fake, path, uuid, device):
        super().__init__(fake, path, "org.bluez.GattCharacteristic1", {
            "UUID": dbus.String(uuid), "Value": dbus.ByteArray(b""), "Notifying": dbus.Boolean(False)})
        self.uuid, self.device = uuid, device

    def notify(self, value):
        if self.props["Notifying"]:
            self.set(Value=dbus.ByteArray(bytes(value)))
        return True

    @dbus.service.method("org.bluez.GattCharacteristic1")
    def StartNotify(self):
        if self.fake.args.refuse_notify:
            self.fake.log("StartNotify refused", self.uuid.lower())
            raise Failed("Operation failed")
        self.fake.log("StartNotify", self.uuid.lower())
        self.set(Notifying=dbus.Boolean(True))
        if self.uuid == HRS_MEASUREMENT:
            self.device.on_measurement_notifying()

    @dbus.service.method("org.bluez.GattCharacteristic1")
    def StopNotify(self):
        self.fake.log("StopNotify", self.uuid.lower())
        self.set(Notifying=dbus.Boolean(False))

    @dbus.service.method("org.bluez.GattCharacteristic1", in_signature="aya{sv}")
    def WriteValue(self, value, options):
        value = bytes(value)
        self.fake.log("WriteValue", self.uuid.lower(), value.hex(), "type=" + str(options.get("type", "")))
        if self.uuid == PMD_CONTROL:
            self.device.on_control_write(value)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--address", required=True, help="D-Bus address of the private bus")
    parser.add_argument("--log", help="file for one line per call")
    parser.add_argument("--recording", help="ECG recording the strap streams")
    parser.add_argument("--frame-ms", type=int, default=20,
                        help="pause between ECG frames, and between heart rate values")
    parser.add_argument("--hr-script", choices=sorted(HR_SCRIPTS), default="beats",
                        help="the heart rate values a strap sends")
    parser.add_argument("--first-connect-ms", type=int, default=10,
                        help="how long the first Connect takes to succeed")
    parser.add_argument("--vanish-after-frames", type=int, default=0,
                        help="the strap drops out of range after this many frames")
    parser.add_argument("--no-adapter", action="store_true", help="BlueZ runs without an adapter")
    parser.add_argument("--powered-off", action="store_true", help="the adapter is switched off")
    parser.add_argument("--refuse-notify", action="store_true", help="StartNotify always fails")
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
