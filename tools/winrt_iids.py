#!/usr/bin/env python3
"""The interface IDs the WinRT Bluetooth link declares in
sensor/winrt_ble_abi_win32.h, derived here so they can be checked.

Plain interfaces have fixed IIDs from the Windows metadata (Windows.winmd);
they are listed once below, each with its runtime class where one names it
as its default interface. A parameterised interface (TypedEventHandler<A, B>,
IAsyncOperation<T>) has no IID of its own: each instantiation's IID is a
name-based UUID (version 5, SHA-1) in the WinRT "pinterface" namespace
11f47ad5-7b73-42c0-abae-878b1e16adee over the instantiation's type signature,
as the Windows Runtime type system documentation describes ("Guid generation
for parameterized types"). Signatures used here:

    runtime class   rc(<full name>;{<iid of its default interface>})
    interface       {<iid>}
    enum            enum(<full name>;i4)
    Object          cinterface(IInspectable)
    boolean         b1
    instantiation   pinterface({<iid of the generic>};<arg>;<arg>...)

Usage:
    tools/winrt_iids.py            print the C++ constants
    tools/winrt_iids.py --check H  exit 1 unless header H holds exactly these
"""
import re
import sys
import uuid

PINTERFACE_NAMESPACE = uuid.UUID("11f47ad5-7b73-42c0-abae-878b1e16adee")

# The generics' own IIDs (Windows.Foundation).
TYPED_EVENT_HANDLER = "9de1c534-6ae1-11e0-84e1-18a905bcc53f"
ASYNC_OPERATION = "9fc2b0bb-e446-44e2-aa61-9cab8f636af2"

BT = "Windows.Devices.Bluetooth."
ADV = BT + "Advertisement."
GATT = BT + "GenericAttributeProfile."

# C++ name -> (IID, runtime class whose default interface it is, or None).
INTERFACES = {
    "kIidBluetoothAdapter": ("7974f04c-5f7a-4a34-9225-a855f84b1a8b", BT + "BluetoothAdapter"),
    "kIidBluetoothAdapterStatics": ("8b02fb6a-ac4c-4741-8661-8eab7d17ea9f", None),
    "kIidBluetoothLEDevice": ("b5ee2f7b-4ad8-4642-ac48-80a0b500e887", BT + "BluetoothLEDevice"),
    "kIidBluetoothLEDevice3": ("aee9e493-44ac-40dc-af33-b2c13c01ca46", None),
    "kIidBluetoothLEDevice4": ("2b605031-2248-4b2f-acf0-7cee36fc5870", None),
    "kIidBluetoothLEDeviceStatics": ("c8cf1a19-f0b6-4bf0-8689-41303de2d9f4", None),
    "kIidAdvertisementWatcher":
        ("a6ac336f-f3d3-4297-8d6c-c81ea6623f40", ADV + "BluetoothLEAdvertisementWatcher"),
    "kIidAdvertisementReceivedEventArgs":
        ("27987ddf-e596-41be-8d43-9e6731d4a913", ADV + "BluetoothLEAdvertisementReceivedEventArgs"),
    "kIidAdvertisement": ("066fb2b7-33d1-4e7d-8367-cf81d0f79653", ADV + "BluetoothLEAdvertisement"),
    "kIidGattSession": ("d23b5143-e04e-4c24-999c-9c256f9856b1", GATT + "GattSession"),
    "kIidGattSessionStatics": ("2e65b95c-539f-4db7-82a8-73bdbbf73ebf", None),
    "kIidGattDeviceServicesResult":
        ("171dd3ee-016d-419d-838a-576cf475a3d8", GATT + "GattDeviceServicesResult"),
    "kIidGattDeviceService3": ("b293a950-0c53-437c-a9b3-5c3210c6e569", None),
    "kIidGattCharacteristicsResult":
        ("1194945c-b257-4f3e-9db7-f68bc9a9aef2", GATT + "GattCharacteristicsResult"),
    "kIidGattCharacteristic": ("59cb50c1-5934-4f68-a198-eb864fa44e6b", GATT + "GattCharacteristic"),
    "kIidGattValueChangedEventArgs":
        ("d21bdb54-06e3-4ed8-a263-acfac8ba7313", GATT + "GattValueChangedEventArgs"),
    "kIidBufferByteAccess": ("905a0fef-bc53-11df-8c49-001e4fc686da", None),
    "kIidClosable": ("30d5a829-7fa4-4026-83bb-d75bae4ea99e", None),
}


def rc(cpp_name):
    iid, runtime_class = INTERFACES[cpp_name]
    return "rc(%s;{%s})" % (runtime_class, iid)


def pinterface(generic, *args):
    return "pinterface({%s};%s)" % (generic, ";".join(args))


# C++ name -> (what it is, signature).
PARAMETERISED = {
    "kIidWatcherReceivedHandler": (
        "TypedEventHandler<BluetoothLEAdvertisementWatcher, "
        "BluetoothLEAdvertisementReceivedEventArgs>",
        pinterface(TYPED_EVENT_HANDLER, rc("kIidAdvertisementWatcher"),
                   rc("kIidAdvertisementReceivedEventArgs"))),
    "kIidConnectionStatusHandler": (
        "TypedEventHandler<BluetoothLEDevice, Object>",
        pinterface(TYPED_EVENT_HANDLER, rc("kIidBluetoothLEDevice"), "cinterface(IInspectable)")),
    "kIidValueChangedHandler": (
        "TypedEventHandler<GattCharacteristic, GattValueChangedEventArgs>",
        pinterface(TYPED_EVENT_HANDLER, rc("kIidGattCharacteristic"),
                   rc("kIidGattValueChangedEventArgs"))),
    "kIidAsyncAdapter": ("IAsyncOperation<BluetoothAdapter>",
                         pinterface(ASYNC_OPERATION, rc("kIidBluetoothAdapter"))),
    "kIidAsyncDevice": ("IAsyncOperation<BluetoothLEDevice>",
                        pinterface(ASYNC_OPERATION, rc("kIidBluetoothLEDevice"))),
    "kIidAsyncGattSession": ("IAsyncOperation<GattSession>",
                             pinterface(ASYNC_OPERATION, rc("kIidGattSession"))),
    "kIidAsyncServicesResult": ("IAsyncOperation<GattDeviceServicesResult>",
                                pinterface(ASYNC_OPERATION, rc("kIidGattDeviceServicesResult"))),
    "kIidAsyncCharacteristicsResult": (
        "IAsyncOperation<GattCharacteristicsResult>",
        pinterface(ASYNC_OPERATION, rc("kIidGattCharacteristicsResult"))),
    "kIidAsyncCommunicationStatus": (
        "IAsyncOperation<GattCommunicationStatus>",
        pinterface(ASYNC_OPERATION, "enum(%sGattCommunicationStatus;i4)" % GATT)),
}

# Published instantiations (the IIDs in the SDK's windows.foundation.h) that
# pin the algorithm down before anything of ours is derived with it.
KNOWN = [
    (pinterface(ASYNC_OPERATION, "b1"), "cdb5efb3-5788-509d-9be1-71ccb8a3362a"),
    (pinterface("fcdcf02c-e5d8-4478-915a-4d90b74b83a5", "b1"),
     "c1d3d1a2-ae17-5a5f-b5a2-bdcc8844889a"),
]


def parameterised_iid(signature):
    return uuid.uuid5(PINTERFACE_NAMESPACE, signature)


def cpp_initialiser(u):
    b = u.bytes
    return "{0x%s, 0x%s, 0x%s, {%s}}" % (b[0:4].hex(), b[4:6].hex(), b[6:8].hex(),
                                         ", ".join("0x%02x" % x for x in b[8:]))


def expected():
    out = {}
    for name, (iid, _) in INTERFACES.items():
        out[name] = cpp_initialiser(uuid.UUID(iid))
    for name, (_, signature) in PARAMETERISED.items():
        out[name] = cpp_initialiser(parameterised_iid(signature))
    return out


def self_test():
    for signature, iid in KNOWN:
        got = str(parameterised_iid(signature))
        if got != iid:
            sys.exit("algorithm check failed: %s gives %s, published %s" % (signature, got, iid))


def print_constants():
    values = expected()
    for name, (iid, runtime_class) in INTERFACES.items():
        if runtime_class:
            print("// default interface of %s" % runtime_class)
        print("inline constexpr GUID %s = %s;" % (name, values[name]))
    for name, (what, signature) in PARAMETERISED.items():
        print("// %s\n// %s" % (what, signature))
        print("inline constexpr GUID %s = %s;" % (name, values[name]))


def check(header):
    text = open(header, encoding="utf-8").read()
    found = {}
    for m in re.finditer(r"inline constexpr GUID (kIid\w+) =\s*(\{[^;]*\});", text):
        found[m.group(1)] = re.sub(r"\s+", "", m.group(2))
    want = {n: v.replace(" ", "") for n, v in expected().items()}
    bad = [n for n in want if found.get(n) != want[n]] + [n for n in found if n not in want]
    for n in bad:
        print("%s: header %s, derived %s" % (n, found.get(n), want.get(n)), file=sys.stderr)
    if bad:
        return 1
    print("%d interface IDs in %s match" % (len(want), header))
    return 0


if __name__ == "__main__":
    self_test()
    if len(sys.argv) == 3 and sys.argv[1] == "--check":
        sys.exit(check(sys.argv[2]))
    if len(sys.argv) != 1:
        sys.exit(__doc__)
    print_constants()
