// UPnP actions of the box's two services, called through GUPnP's service
// proxies.
#pragma once

#include <libgupnp/gupnp.h>

#include <map>
#include <string>
#include <vector>

#include "Discovery.h"

namespace chdcp {

enum class Service { kBasicManagement, kConfigurationManagement };

struct ActionInput {
  std::string name;
  std::string text;     // for a string argument
  unsigned number = 0;  // for a ui4 argument
  bool isNumber = false;
};

class Actions {
 public:
  Actions(const Box& box, double timeoutSeconds) : mBox(box), mTimeout(timeoutSeconds) {}

  // Calls the action and returns its out-arguments by name, all as text.
  // A UPnP error answer throws a Failure with kExitBoxError ("UPnP error 705:
  // Invalid Value"); no answer within the timeout throws kExitNoBox.
  std::map<std::string, std::string> call(Service service, const std::string& action,
                                          const std::vector<ActionInput>& inputs,
                                          const std::vector<std::string>& outputs);

  // The string out-argument of an action without inputs.
  std::string get(Service service, const std::string& action, const std::string& output);

  GUPnPServiceProxy* proxy(Service service) const;

 private:
  const Box& mBox;
  double mTimeout;
};

const char* serviceName(Service service);
const char* serviceType(Service service);

}  // namespace chdcp
