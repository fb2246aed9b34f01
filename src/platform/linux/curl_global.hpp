#pragma once

namespace terrane::common {

// Initialises libcurl for the process the first time it is called; later calls return at once.
// Any thread, also concurrently. libcurl is never torn down again: other code in the process may
// still use it after the last of our services is gone.
void ensureCurlGlobalInit();

}  // namespace terrane::common
