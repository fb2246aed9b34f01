#pragma once

#include <chrono>
#include <string>

namespace terrane::common {

// Asks NetworkManager whether the system's primary connection is metered (its Metered property
// says "yes" or "guess-yes"). `busAddress` names a D-Bus bus ("unix:path=..."); empty means the
// system bus. No bus, no NetworkManager on it, or no answer within `bound` all mean "not
// metered". Any thread; each call uses a connection of its own and blocks at most about
// `bound`.
bool networkManagerReportsMetered(const std::string& busAddress = {},
                                  std::chrono::milliseconds bound = std::chrono::milliseconds(250));

}  // namespace terrane::common
