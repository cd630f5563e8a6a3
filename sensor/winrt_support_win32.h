// The Windows Runtime at the ABI level, as the Bluetooth LE backend uses it:
// the runtime functions looked up in combase.dll, owned HSTRINGs, HRESULTs
// turned into Status, awaiting an asynchronous operation by polling, and a
// TypedEventHandler that calls a function. No Bluetooth logic; that is
// winble_backend_win32.cc's.
#pragma once
#include <objbase.h>
#include <roapi.h>
#include <windows.h>
#include <winstring.h>
#include <wrl/client.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "base/status.h"
#include "sensor/ble_common.h"
#include "sensor/winble_text.h"
#include "sensor/winrt_ble_abi_win32.h"

namespace cvn::winrt {

using Microsoft::WRL::ComPtr;
using namespace winrt_abi;
using ABI::Windows::Storage::Streams::IBuffer;
using Bytes = std::vector<std::uint8_t>;

// Asynchronous operations finish within a few connection events; a first
// connection to a strap can take several seconds. This only bounds a stack
// that never answers.
inline constexpr auto kAsyncLimit = std::chrono::seconds(30);
inline constexpr auto kAsyncPoll = std::chrono::milliseconds(5);

// ---------------------------------------------------------------------------
// The runtime, loaded once.

struct Runtime {
  using GetFactory = HRESULT(WINAPI*)(HSTRING, REFIID, void**);
  using Activate = HRESULT(WINAPI*)(HSTRING, IInspectable**);
  using CreateString = HRESULT(WINAPI*)(LPCWSTR, UINT32, HSTRING*);
  using DeleteString = HRESULT(WINAPI*)(HSTRING);
  using RawBuffer = PCWSTR(WINAPI*)(HSTRING, UINT32*);

  GetFactory get_factory = nullptr;
  Activate activate = nullptr;
  CreateString create_string = nullptr;
  DeleteString delete_string = nullptr;
  RawBuffer raw_buffer = nullptr;

  bool loaded() const {
    return get_factory && activate && create_string && delete_string && raw_buffer;
  }
};

const Runtime& runtime();

// An HSTRING we own.
class HString {
 public:
  HString() = default;
  explicit HString(const wchar_t* text) {
    runtime().create_string(text, static_cast<UINT32>(std::wcslen(text)), &s_);
  }
  ~HString() {
    if (s_) runtime().delete_string(s_);
  }
  HString(const HString&) = delete;
  HString& operator=(const HString&) = delete;
  HSTRING get() const { return s_; }
  HSTRING* put() { return &s_; }
  std::string utf8() const {
    if (!s_) return {};
    UINT32 n = 0;
    const wchar_t* p = runtime().raw_buffer(s_, &n);
    static_assert(sizeof(wchar_t) == sizeof(char16_t), "WinRT strings are UTF-16");
    return utf16_to_utf8(std::u16string_view(reinterpret_cast<const char16_t*>(p), n));
  }

 private:
  HSTRING s_ = nullptr;
};

/// A failed call as a Status naming the call and its code.
Status failed(const char* step, HRESULT hr);

// A GATT write that ran can still be refused by the strap (AccessDenied when
// Windows has not paired it, Unreachable out of range); going on would stream
// nothing without a word.
Status gatt_written(const char* step, HRESULT hr, std::int32_t status);

// The classes Wine (and a Windows without Bluetooth support) does not have.
bool class_missing(HRESULT hr);

template <class T>
HRESULT factory(const wchar_t* class_name, const GUID& iid, ComPtr<T>& out) {
  HString name(class_name);
  return runtime().get_factory(name.get(), iid,
                               reinterpret_cast<void**>(out.ReleaseAndGetAddressOf()));
}

// QueryInterface into a ComPtr; E_POINTER for a null object (an empty result).
template <class T>
HRESULT query(IUnknown* from, const GUID& iid, ComPtr<T>& to) {
  if (!from) return E_POINTER;
  return from->QueryInterface(iid, reinterpret_cast<void**>(to.ReleaseAndGetAddressOf()));
}

GUID to_guid(const std::string& uuid);

// Waits for `op` and takes its result. `cancel` (may be null) and a stop
// request on `stop` end the wait early; the operation is then cancelled. `iid` is the
// instantiation's IID: an operation that does not answer to it is not what the declarations say.
template <class T>
HRESULT await(IAsyncOperation<T>* op, const GUID& iid, T* result,
              const std::atomic<bool>* cancel = nullptr, const std::stop_token& stop = {}) {
  ComPtr<IUnknown> typed;
  if (FAILED(op->QueryInterface(iid, reinterpret_cast<void**>(typed.GetAddressOf()))))
    return E_NOINTERFACE;
  ComPtr<IAsyncInfo> info;
  HRESULT hr =
      op->QueryInterface(__uuidof(IAsyncInfo), reinterpret_cast<void**>(info.GetAddressOf()));
  if (FAILED(hr)) return hr;
  const auto until = std::chrono::steady_clock::now() + kAsyncLimit;
  AsyncStatus status = AsyncStatus::Started;
  while (SUCCEEDED(hr = info->get_Status(&status)) && status == AsyncStatus::Started) {
    const bool cancelled = (cancel && *cancel) || stop.stop_requested();
    if (cancelled || std::chrono::steady_clock::now() > until) {
      info->Cancel();
      return cancelled ? E_ABORT : HRESULT_FROM_WIN32(ERROR_TIMEOUT);
    }
    std::this_thread::sleep_for(kAsyncPoll);
  }
  if (FAILED(hr)) return hr;
  if (status == AsyncStatus::Error) {
    HRESULT error = E_FAIL;
    info->get_ErrorCode(&error);
    return FAILED(error) ? error : E_FAIL;
  }
  if (status != AsyncStatus::Completed) return E_ABORT;
  return op->GetResults(result);
}

// ---------------------------------------------------------------------------
// Event handlers: a TypedEventHandler<S, A> delegate calling a function.

class Handler final : public ITypedEventHandler {
 public:
  using Fn = std::function<void(IInspectable* sender, IInspectable* args)>;
  Handler(const GUID& iid, Fn fn) : iid_(iid), fn_(std::move(fn)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    // The event source asks for the delegate's own IID; IAgileObject tells
    // it the handler may be called from any thread, so it is not marshalled.
    if (riid == __uuidof(IUnknown) || riid == __uuidof(IAgileObject) || riid == iid_) {
      *out = static_cast<ITypedEventHandler*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }
  HRESULT STDMETHODCALLTYPE Invoke(IInspectable* sender, IInspectable* args) override {
    fn_(sender, args);
    return S_OK;
  }

 private:
  ~Handler() = default;
  const GUID iid_;
  const Fn fn_;
  std::atomic<ULONG> refs_{1};
};

ComPtr<Handler> make_handler(const GUID& iid, Handler::Fn fn);

/// The bytes of a buffer; empty when it cannot be read.
Bytes buffer_bytes(IBuffer* buffer);

}  // namespace cvn::winrt
