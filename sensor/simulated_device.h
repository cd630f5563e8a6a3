// What the simulated straps share with each other and with no real stack: an
// adapter that is always there, a scan that finds one device, and a link to
// it whose discovery always succeeds and finds one service. Each strap adds
// only what it streams and how.
#pragma once
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "sensor/ble_backend.h"

namespace cvn {

/// A link whose GATT discovery finds `service` with `characteristics` among
/// `services` services, and which stays up until it is closed.
class SimulatedGatt : public BleConnection {
 public:
  SimulatedGatt(int services, std::string service,
                std::initializer_list<const char*> characteristics)
      : services_(services),
        service_(std::move(service)),
        characteristics_(characteristics.begin(), characteristics.end()) {}

  Status watch_connection(std::function<void(bool)>) override { return Status(); }
  Status maintain_connection(bool* kept) override {
    *kept = true;
    return Status();
  }
  Status discover_all(Discovery* out) override {
    *out = {0, services_};
    return Status();
  }
  Status discover_service(const std::string& uuid, Discovery* out) override {
    *out = {0, uuid == service_ ? 1 : 0};
    return Status();
  }
  Status has_characteristic(const std::string& uuid, bool* present) override {
    *present = false;
    for (const std::string& c : characteristics_) *present |= uuid == c;
    return Status();
  }

 private:
  const int services_;
  const std::string service_;
  const std::vector<std::string> characteristics_;
};

/// A stack with one device, `advertised`, always in range; open_device on its
/// address makes a fresh link.
class SimulatedBackend : public BleBackend {
 public:
  explicit SimulatedBackend(Advertisement advertised) : advertised_(std::move(advertised)) {}

  Status has_adapter(bool* present) override {
    *present = true;
    return Status();
  }
  Status start_scan(std::function<void(const Advertisement&)> seen) override {
    seen(advertised_);
    return Status();
  }
  void stop_scan() override {}
  Status open_device(std::uint64_t address, std::stop_token,
                     std::shared_ptr<BleConnection>* link) override {
    if (address == advertised_.address) *link = make_link();
    return Status();
  }

 protected:
  virtual std::shared_ptr<BleConnection> make_link() = 0;

 private:
  const Advertisement advertised_;
};

}  // namespace cvn
