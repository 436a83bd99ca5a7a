// GetValues with any argument text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string argument(reinterpret_cast<const char*>(data), size);
  std::string out = cmfuzz::kUntouched;
  zuna_upnp::UPnPReturn result;
  cmfuzz::onDispatcher([&] { result = cmfuzz::service().GetValues(argument, out); });
  cmfuzz::checkOutArgument(result, out, cmfuzz::kUntouched);
  if (result.isSuccess() && out.compare(0, 19, "<ParameterValueList") != 0) {
    abort();
  }
  return 0;
}
