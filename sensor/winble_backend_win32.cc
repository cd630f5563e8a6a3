// Bluetooth LE on Windows: the Windows Runtime's Windows.Devices.Bluetooth
// API, called at the ABI level (sensor/winrt_ble_abi_win32.h) so that the
// MinGW-w64 build needs no C++/WinRT projection. How each operation maps
// onto WinRT is described in docs/windows.md.
//
// Every call returns an HRESULT; a failed one becomes a Status whose
// message names the call and its code. Asynchronous operations are awaited
// by polling IAsyncInfo (no completion delegate), and a link's waits end
// early once close() has been called, so Stop never waits for the radio.
//
// The runtime functions are looked up in combase.dll at run time: on a
// Windows without WinRT there is no link at all, and Wine without its
// Bluetooth classes answers "no adapter": either way the page says Bluetooth
// is not available, and the program still starts.
#include <objbase.h>
#include <roapi.h>
#include <windows.h>
#include <winstring.h>
#include <wrl/client.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "sensor/ble_common.h"
#include "sensor/hrs.h"
#include "sensor/platform_backend.h"
#include "sensor/winble_text.h"
#include "sensor/winrt_ble_abi_win32.h"
#include "sensor/winrt_support_win32.h"

namespace cvn {

namespace {

using namespace winrt;
using ABI::Windows::Storage::Streams::IBufferFactory;

// ---------------------------------------------------------------------------
// One device.

// What a link's handlers share with it.
struct Gate {
  std::mutex mu;                    // the link's state; handlers run holding it
  std::atomic<bool> closed{false};  // also read by waiting calls
};

class WinLink : public BleConnection {
 public:
  explicit WinLink(ComPtr<IBluetoothLEDevice> device) : device_(std::move(device)) {}
  ~WinLink() override { close(); }

  Status watch_connection(std::function<void(bool)> on_change) override {
    auto h = make_handler(kIidConnectionStatusHandler,
                          [gate = gate_, on_change](IInspectable* sender, IInspectable*) {
                            ComPtr<IBluetoothLEDevice> d;
                            BluetoothConnectionStatus s = kDisconnected;
                            if (!sender || FAILED(query(sender, kIidBluetoothLEDevice, d)) ||
                                FAILED(d->get_ConnectionStatus(&s)))
                              return;
                            std::lock_guard<std::mutex> g(gate->mu);
                            if (!gate->closed) on_change(s == kConnected);
                          });
    ComPtr<IBluetoothLEDevice> device = held(device_);
    if (!device) return closed_status();
    EventRegistrationToken token{};
    HRESULT hr = device->add_ConnectionStatusChanged(h.Get(), &token);
    if (FAILED(hr)) return failed("BluetoothLEDevice.ConnectionStatusChanged", hr);
    std::lock_guard<std::mutex> g(gate_->mu);
    status_token_ = token;
    watching_ = true;
    return Status();
  }

  // Without a session Windows may drop an idle link between the steps; the
  // procedure goes on without one, as a session is only a hint.
  Status maintain_connection(bool* kept) override {
    *kept = false;
    ComPtr<IBluetoothLEDevice> device = held(device_);
    if (!device) return closed_status();
    ComPtr<IBluetoothLEDevice4> device4;
    ComPtr<IInspectable> id;
    ComPtr<IGattSessionStatics> statics;
    ComPtr<IAsyncOperation<IInspectable*>> op;
    IInspectable* raw = nullptr;
    const char* step = "BluetoothLEDevice.BluetoothDeviceId";
    HRESULT hr = query(device.Get(), kIidBluetoothLEDevice4, device4);
    if (SUCCEEDED(hr)) hr = device4->get_BluetoothDeviceId(id.GetAddressOf());
    if (SUCCEEDED(hr)) {
      step = "GattSession.FromDeviceIdAsync";
      hr = factory(kGattSessionClass, kIidGattSessionStatics, statics);
    }
    if (SUCCEEDED(hr)) hr = statics->FromDeviceIdAsync(id.Get(), op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncGattSession, &raw, &gate_->closed);
    ComPtr<IInspectable> result;
    result.Attach(raw);
    ComPtr<IGattSession> session;
    if (SUCCEEDED(hr)) hr = query(result.Get(), kIidGattSession, session);
    if (SUCCEEDED(hr)) {
      step = "GattSession.MaintainConnection";
      hr = session->put_MaintainConnection(TRUE);
    }
    if (FAILED(hr)) {
      logLine(winrt_failure(step, hr));
      return Status();
    }
    std::lock_guard<std::mutex> g(gate_->mu);
    session_ = session;
    *kept = true;
    return Status();
  }

  bool connected() override {
    ComPtr<IBluetoothLEDevice> device = held(device_);
    BluetoothConnectionStatus s = kDisconnected;
    return device && SUCCEEDED(device->get_ConnectionStatus(&s)) && s == kConnected;
  }

  Status discover_all(Discovery* out) override { return discover(nullptr, out); }
  Status discover_service(const std::string& uuid, Discovery* out) override {
    return discover(&uuid, out);
  }

  Status has_characteristic(const std::string& uuid, bool* present) override {
    *present = false;
    ComPtr<IGattDeviceService3> service = held(service_);
    if (!service) return Status();
    ComPtr<IAsyncOperation<IInspectable*>> op;
    IInspectable* raw = nullptr;
    HRESULT hr = service->GetCharacteristicsForUuidWithCacheModeAsync(to_guid(uuid), kUncached,
                                                                      op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncCharacteristicsResult, &raw, &gate_->closed);
    ComPtr<IInspectable> result_object;
    result_object.Attach(raw);
    ComPtr<IGattCharacteristicsResult> result;
    ComPtr<IVectorView<IInspectable*>> list;
    UINT32 count = 0;
    if (SUCCEEDED(hr)) hr = query(result_object.Get(), kIidGattCharacteristicsResult, result);
    if (SUCCEEDED(hr)) hr = result->get_Characteristics(list.GetAddressOf());
    if (SUCCEEDED(hr) && list) hr = list->get_Size(&count);
    if (FAILED(hr)) return failed("GattDeviceService.GetCharacteristicsForUuidAsync", hr);
    if (count == 0) return Status();
    ComPtr<IInspectable> first;
    ComPtr<IGattCharacteristic> characteristic;
    hr = list->GetAt(0, first.GetAddressOf());
    if (SUCCEEDED(hr)) hr = query(first.Get(), kIidGattCharacteristic, characteristic);
    if (FAILED(hr)) return failed("GattCharacteristicsResult.Characteristics", hr);
    std::lock_guard<std::mutex> g(gate_->mu);
    if (gate_->closed) return closed_status();
    characteristics_[uuid] = characteristic;
    *present = true;
    return Status();
  }

  Status subscribe(const std::string& uuid, std::function<void(const Bytes&)> on_value) override {
    ComPtr<IGattCharacteristic> c = characteristic(uuid);
    if (!c) return Status::error("WinRT: no characteristic " + uuid);
    auto h = make_handler(kIidValueChangedHandler,
                          [gate = gate_, on_value](IInspectable*, IInspectable* args) {
                            ComPtr<IGattValueChangedEventArgs> a;
                            ComPtr<IBuffer> buffer;
                            if (!args || FAILED(query(args, kIidGattValueChangedEventArgs, a)) ||
                                FAILED(a->get_CharacteristicValue(buffer.GetAddressOf())))
                              return;
                            Bytes value = buffer_bytes(buffer.Get());
                            std::lock_guard<std::mutex> g(gate->mu);
                            if (!gate->closed) on_value(value);
                          });
    EventRegistrationToken token{};
    HRESULT hr = c->add_ValueChanged(h.Get(), &token);
    if (FAILED(hr)) return failed("GattCharacteristic.ValueChanged", hr);
    {
      std::lock_guard<std::mutex> g(gate_->mu);
      value_tokens_.push_back({c, token});
    }
    ComPtr<IAsyncOperation<std::int32_t>> op;
    std::int32_t status = 0;
    hr = c->WriteClientCharacteristicConfigurationDescriptorAsync(kCccdNotify, op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncCommunicationStatus, &status, &gate_->closed);
    return gatt_written("GattCharacteristic.WriteClientCharacteristicConfigurationDescriptorAsync",
                        hr, status);
  }

  Status write(const std::string& uuid, const Bytes& bytes) override {
    ComPtr<IGattCharacteristic> c = characteristic(uuid);
    if (!c) return Status::error("WinRT: no characteristic " + uuid);
    ComPtr<IBufferFactory> buffers;
    ComPtr<IBuffer> buffer;
    ComPtr<IBufferByteAccess> access;
    BYTE* data = nullptr;
    HRESULT hr = factory(kBufferClass, __uuidof(IBufferFactory), buffers);
    if (SUCCEEDED(hr))
      hr = buffers->Create(static_cast<UINT32>(bytes.size()), buffer.GetAddressOf());
    if (SUCCEEDED(hr)) hr = query(buffer.Get(), kIidBufferByteAccess, access);
    if (SUCCEEDED(hr)) hr = access->Buffer(&data);
    if (FAILED(hr)) return failed("Buffer", hr);
    std::memcpy(data, bytes.data(), bytes.size());
    buffer->put_Length(static_cast<UINT32>(bytes.size()));
    ComPtr<IAsyncOperation<std::int32_t>> op;
    std::int32_t status = 0;
    hr = c->WriteValueWithOptionAsync(buffer.Get(), kWriteWithResponse, op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncCommunicationStatus, &status, &gate_->closed);
    return gatt_written("GattCharacteristic.WriteValueWithOptionAsync", hr, status);
  }

  void close() override {
    ComPtr<IBluetoothLEDevice> device;
    ComPtr<IGattSession> session;
    std::vector<std::pair<ComPtr<IGattCharacteristic>, EventRegistrationToken>> tokens;
    bool watching;
    EventRegistrationToken status_token;
    {
      // Waits for a running handler: handlers hold this lock, and none
      // calls back once gate_->closed is set.
      std::lock_guard<std::mutex> g(gate_->mu);
      if (gate_->closed) return;
      gate_->closed = true;
      device.Swap(device_);
      session.Swap(session_);
      tokens.swap(value_tokens_);
      watching = watching_;
      status_token = status_token_;
      service_.Reset();
      characteristics_.clear();
    }
    for (auto& [c, token] : tokens) c->remove_ValueChanged(token);
    if (device && watching) device->remove_ConnectionStatusChanged(status_token);
    ComPtr<IClosable> closable;
    if (session && SUCCEEDED(query(session.Get(), kIidClosable, closable))) closable->Close();
    if (device && SUCCEEDED(query(device.Get(), kIidClosable, closable))) closable->Close();
  }

 private:
  template <class T>
  ComPtr<T> held(const ComPtr<T>& member) {
    std::lock_guard<std::mutex> g(gate_->mu);
    return gate_->closed ? nullptr : member;
  }
  ComPtr<IGattCharacteristic> characteristic(const std::string& uuid) {
    std::lock_guard<std::mutex> g(gate_->mu);
    auto it = characteristics_.find(uuid);
    return gate_->closed || it == characteristics_.end() ? nullptr : it->second;
  }
  static Status closed_status() { return Status::error("WinRT: link closed"); }

  Status discover(const std::string* uuid, Discovery* out) {
    ComPtr<IBluetoothLEDevice> device = held(device_);
    if (!device) return closed_status();
    ComPtr<IBluetoothLEDevice3> device3;
    ComPtr<IAsyncOperation<IInspectable*>> op;
    IInspectable* raw = nullptr;
    const char* step = uuid ? "BluetoothLEDevice.GetGattServicesForUuidAsync"
                            : "BluetoothLEDevice.GetGattServicesAsync";
    HRESULT hr = query(device.Get(), kIidBluetoothLEDevice3, device3);
    if (SUCCEEDED(hr))
      hr = uuid ? device3->GetGattServicesForUuidWithCacheModeAsync(to_guid(*uuid), kUncached,
                                                                    op.GetAddressOf())
                : device3->GetGattServicesWithCacheModeAsync(kUncached, op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncServicesResult, &raw, &gate_->closed);
    ComPtr<IInspectable> result_object;
    result_object.Attach(raw);
    ComPtr<IGattDeviceServicesResult> result;
    ComPtr<IVectorView<IInspectable*>> list;
    std::int32_t status = 0;
    UINT32 count = 0;
    if (SUCCEEDED(hr)) hr = query(result_object.Get(), kIidGattDeviceServicesResult, result);
    if (SUCCEEDED(hr)) hr = result->get_Status(&status);
    if (SUCCEEDED(hr)) hr = result->get_Services(list.GetAddressOf());
    if (SUCCEEDED(hr) && list) hr = list->get_Size(&count);
    if (FAILED(hr)) return failed(step, hr);
    *out = {status, static_cast<int>(count)};
    if (!uuid) return Status();
    ComPtr<IGattDeviceService3> first;
    if (count > 0) {
      ComPtr<IInspectable> item;
      hr = list->GetAt(0, item.GetAddressOf());
      if (SUCCEEDED(hr)) hr = query(item.Get(), kIidGattDeviceService3, first);
      if (FAILED(hr)) return failed("GattDeviceServicesResult.Services", hr);
    }
    std::lock_guard<std::mutex> g(gate_->mu);
    service_ = first;
    characteristics_.clear();
    return Status();
  }

  // Handlers hold the gate, not the link, so one still on its way in after
  // close() finds it closed instead of a freed link.
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
  ComPtr<IBluetoothLEDevice> device_;
  ComPtr<IGattSession> session_;
  ComPtr<IGattDeviceService3> service_;                                 // the current service
  std::map<std::string, ComPtr<IGattCharacteristic>> characteristics_;  // of the current service
  std::vector<std::pair<ComPtr<IGattCharacteristic>, EventRegistrationToken>> value_tokens_;
  bool watching_ = false;
  EventRegistrationToken status_token_{};
};

// ---------------------------------------------------------------------------
// Scanning: one watcher per scanning thread.

struct Scan {
  std::mutex mu;  // held while reporting; stop() takes it so no report follows
  bool active = true;
  std::function<void(const Advertisement&)> seen;
  ComPtr<IBluetoothLEAdvertisementWatcher> watcher;
  EventRegistrationToken token{};

  void stop() {
    watcher->remove_Received(token);
    watcher->Stop();
    std::lock_guard<std::mutex> g(mu);
    active = false;
  }
};

class WinBackend : public BleBackend {
 public:
  ~WinBackend() override {
    std::map<std::thread::id, std::shared_ptr<Scan>> scans;
    {
      std::lock_guard<std::mutex> g(mu_);
      scans.swap(scans_);
    }
    for (auto& [thread, scan] : scans) scan->stop();
  }

  Status init_thread() override {
    // The multi-threaded apartment: WinRT objects are then usable from every
    // thread that joined it, and handlers run on the thread pool.
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return failed("CoInitializeEx", hr);
    return Status();
  }

  Status has_adapter(bool* present) override {
    *present = false;
    ComPtr<IBluetoothAdapterStatics> statics;
    HRESULT hr = factory(kBluetoothAdapterClass, kIidBluetoothAdapterStatics, statics);
    // No Bluetooth classes at all is a plain "no adapter".
    if (class_missing(hr)) return Status();
    ComPtr<IAsyncOperation<IInspectable*>> op;
    IInspectable* adapter = nullptr;
    if (SUCCEEDED(hr)) hr = statics->GetDefaultAsync(op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncAdapter, &adapter);
    if (FAILED(hr)) return failed("BluetoothAdapter.GetDefaultAsync", hr);
    *present = adapter != nullptr;
    if (adapter) adapter->Release();
    return Status();
  }

  Status start_scan(std::function<void(const Advertisement&)> seen) override {
    auto scan = std::make_shared<Scan>();
    scan->seen = std::move(seen);
    HString name(kAdvertisementWatcherClass);
    ComPtr<IInspectable> object;
    HRESULT hr = runtime().activate(name.get(), object.GetAddressOf());
    if (FAILED(hr)) return failed("BluetoothLEAdvertisementWatcher", hr);
    hr = query(object.Get(), kIidAdvertisementWatcher, scan->watcher);
    if (SUCCEEDED(hr)) hr = scan->watcher->put_ScanningMode(kActive);
    if (FAILED(hr)) return failed("BluetoothLEAdvertisementWatcher.ScanningMode", hr);
    std::weak_ptr<Scan> weak = scan;
    auto h = make_handler(kIidWatcherReceivedHandler,
                          [weak](IInspectable*, IInspectable* args) { report(weak.lock(), args); });
    hr = scan->watcher->add_Received(h.Get(), &scan->token);
    if (FAILED(hr)) return failed("BluetoothLEAdvertisementWatcher.Received", hr);
    hr = scan->watcher->Start();
    if (FAILED(hr)) {
      scan->watcher->remove_Received(scan->token);
      return failed("BluetoothLEAdvertisementWatcher.Start", hr);
    }
    std::shared_ptr<Scan> previous;
    {
      std::lock_guard<std::mutex> g(mu_);
      previous = std::move(scans_[std::this_thread::get_id()]);
      scans_[std::this_thread::get_id()] = scan;
    }
    if (previous) previous->stop();
    return Status();
  }

  void stop_scan() override {
    std::shared_ptr<Scan> scan;
    {
      std::lock_guard<std::mutex> g(mu_);
      auto it = scans_.find(std::this_thread::get_id());
      if (it == scans_.end()) return;
      scan = std::move(it->second);
      scans_.erase(it);
    }
    scan->stop();
  }

  Status open_device(std::uint64_t address, std::stop_token cancel,
                     std::shared_ptr<BleConnection>* link) override {
    ComPtr<IBluetoothLEDeviceStatics> statics;
    ComPtr<IAsyncOperation<IInspectable*>> op;
    IInspectable* raw = nullptr;
    HRESULT hr = factory(kBluetoothLEDeviceClass, kIidBluetoothLEDeviceStatics, statics);
    if (SUCCEEDED(hr)) hr = statics->FromBluetoothAddressAsync(address, op.GetAddressOf());
    if (SUCCEEDED(hr)) hr = await(op.Get(), kIidAsyncDevice, &raw, nullptr, cancel);
    ComPtr<IInspectable> object;
    object.Attach(raw);
    if (cancel.stop_requested()) return Status();  // given up: no link, nothing to report
    if (FAILED(hr)) return failed("BluetoothLEDevice.FromBluetoothAddressAsync", hr);
    if (!object) return Status();  // no such device
    ComPtr<IBluetoothLEDevice> device;
    hr = query(object.Get(), kIidBluetoothLEDevice, device);
    if (FAILED(hr)) return failed("BluetoothLEDevice", hr);
    *link = std::make_shared<WinLink>(std::move(device));
    return Status();
  }

 private:
  // ServiceUuids holds the advertisement's 16-, 32- and 128-bit service
  // UUIDs, all as full GUIDs in the Bluetooth base UUID.
  static bool lists_heart_rate(IBluetoothLEAdvertisement* advertisement) {
    ComPtr<IVector<GUID>> uuids;
    UINT32 n = 0;
    if (FAILED(advertisement->get_ServiceUuids(uuids.GetAddressOf())) || !uuids ||
        FAILED(uuids->get_Size(&n)))
      return false;
    const GUID heart_rate = to_guid(kHrsServiceUuid);
    for (UINT32 i = 0; i < n; ++i) {
      GUID g;
      if (SUCCEEDED(uuids->GetAt(i, &g)) && IsEqualGUID(g, heart_rate)) return true;
    }
    return false;
  }

  static void report(const std::shared_ptr<Scan>& scan, IInspectable* args) {
    ComPtr<IBluetoothLEAdvertisementReceivedEventArgs> a;
    ComPtr<IBluetoothLEAdvertisement> advertisement;
    UINT64 address = 0;
    HString name;
    if (!scan || !args || FAILED(query(args, kIidAdvertisementReceivedEventArgs, a)) ||
        FAILED(a->get_BluetoothAddress(&address)))
      return;
    Advertisement seen;
    seen.address = address;
    if (SUCCEEDED(a->get_Advertisement(advertisement.GetAddressOf())) && advertisement) {
      advertisement->get_LocalName(name.put());
      seen.heart_rate_service = lists_heart_rate(advertisement.Get());
    }
    seen.name = name.utf8();
    std::lock_guard<std::mutex> g(scan->mu);
    if (scan->active) scan->seen(seen);
  }

  std::mutex mu_;
  std::map<std::thread::id, std::shared_ptr<Scan>> scans_;
};

}  // namespace

std::shared_ptr<BleBackend> make_platform_backend() {
  // Without the runtime (an old Windows) there is no Bluetooth LE to offer:
  // the program then says so instead of offering a scan that cannot start.
  if (!runtime().loaded()) return nullptr;
  return std::make_shared<WinBackend>();
}

}  // namespace cvn
