// The platform's Bluetooth LE stack behind the BleBackend interface:
// BlueZ over D-Bus on Linux (bluez_backend_linux.cc), WinRT on Windows.
#pragma once
#include <memory>

#include "sensor/ble_backend.h"

namespace cvn {

/// Null when this build or this system has no Bluetooth stack to talk to.
std::shared_ptr<BleBackend> make_platform_backend();

}  // namespace cvn
