// GetSupportedParameters (and GetInstances) with any StartingNode and
// SearchDepth: the first four bytes are the depth, the rest the node.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  uint32_t depth = 0;
  const size_t depthBytes = size < sizeof(depth) ? size : sizeof(depth);
  memcpy(&depth, data, depthBytes);
  const std::string node(reinterpret_cast<const char*>(data) + depthBytes, size - depthBytes);
  std::string out = cmfuzz::kUntouched;
  std::string instances = cmfuzz::kUntouched;
  zuna_upnp::UPnPReturn result;
  zuna_upnp::UPnPReturn instancesResult;
  cmfuzz::onDispatcher([&] {
    result = cmfuzz::service().GetSupportedParameters(node, depth, out);
    instancesResult = cmfuzz::service().GetInstances(node, depth, instances);
  });
  cmfuzz::checkOutArgument(result, out, cmfuzz::kUntouched);
  if (depth >= 0x80000000u && result.code != 701) {
    abort();
  }
  if (!instancesResult.isSuccess() || !instances.empty()) {
    abort();
  }
  return 0;
}
