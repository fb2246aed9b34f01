#!/usr/bin/env bash
# The shared library exports the C entry points under their plain names and keeps private
# classes hidden.
set -euo pipefail
library=$1
symbols=$(nm -D --defined-only "$library")

status=0
for name in terrane_common_get_major_version terrane_common_get_minor_version \
    terrane_common_get_patch_version terrane_common_get_version_string \
    terrane_common_offline_service_register_observer \
    terrane_common_offline_service_unregister_observer; do
  if ! grep -qE " T ${name}\$" <<<"$symbols"; then
    echo "missing exported function: $name"
    status=1
  fi
done

# Private classes never leave the library. (Standard templates instantiated over them may, as
# vague-linkage symbols; what matters is that none of their own members is reachable.)
if grep -E ' [A-Za-z] ((typeinfo( name)?|vtable) for )?terrane::common::(TaskQueue|WorkerThread|OfflineServiceWorker|OfflineServiceImpl)\b' \
    <<<"$(nm -DC --defined-only "$library")"; then
  echo "private symbols are exported"
  status=1
fi
exit $status
