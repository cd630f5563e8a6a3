#include "sensor/winrt_support_win32.h"

#include <cstring>

namespace cvn::winrt {

namespace {

template <class F>
F lookup(HMODULE module, const char* name) {
  return reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace

const Runtime& runtime() {
  static const Runtime r = [] {
    Runtime r;
    if (HMODULE m = LoadLibraryW(L"combase.dll")) {
      r.get_factory = lookup<Runtime::GetFactory>(m, "RoGetActivationFactory");
      r.activate = lookup<Runtime::Activate>(m, "RoActivateInstance");
      r.create_string = lookup<Runtime::CreateString>(m, "WindowsCreateString");
      r.delete_string = lookup<Runtime::DeleteString>(m, "WindowsDeleteString");
      r.raw_buffer = lookup<Runtime::RawBuffer>(m, "WindowsGetStringRawBuffer");
    }
    return r;
  }();
  return r;
}

Status failed(const char* step, HRESULT hr) {
  return Status::error(winrt_failure(step, hr));
}

Status gatt_written(const char* step, HRESULT hr, std::int32_t status) {
  if (FAILED(hr)) return failed(step, hr);
  if (status != 0)
    return Status::error(std::string("WinRT: ") + step + " answered " + gatt_status_text(status));
  return Status();
}

bool class_missing(HRESULT hr) {
  return hr == REGDB_E_CLASSNOTREG || hr == CLASS_E_CLASSNOTAVAILABLE || hr == E_NOTIMPL;
}

GUID to_guid(const std::string& uuid) {
  GuidFields f;
  parse_guid_text(uuid, &f);
  GUID g;
  g.Data1 = f.data1;
  g.Data2 = f.data2;
  g.Data3 = f.data3;
  std::memcpy(g.Data4, f.data4, sizeof g.Data4);
  return g;
}

ComPtr<Handler> make_handler(const GUID& iid, Handler::Fn fn) {
  ComPtr<Handler> h;
  h.Attach(new Handler(iid, std::move(fn)));
  return h;
}

Bytes buffer_bytes(IBuffer* buffer) {
  UINT32 n = 0;
  ComPtr<IBufferByteAccess> access;
  BYTE* data = nullptr;
  if (!buffer || FAILED(buffer->get_Length(&n)) ||
      FAILED(query(buffer, kIidBufferByteAccess, access)) || FAILED(access->Buffer(&data)) || !data)
    return {};
  return Bytes(data, data + n);
}

}  // namespace cvn::winrt
