// SetValues with any argument text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string argument(reinterpret_cast<const char*>(data), size);
  std::string out = cmfuzz::kUntouched;
  zuna_upnp::UPnPReturn result;
  cmfuzz::onDispatcher([&] { result = cmfuzz::service().SetValues(argument, out); });
  cmfuzz::checkOutArgument(result, out, cmfuzz::kUntouched);
  // A success either applied something (Status set) or had nothing to apply (Status untouched).
  if (result.isSuccess() && out != "ChangesApplied" && out != cmfuzz::kUntouched) {
    abort();
  }
  return 0;
}
