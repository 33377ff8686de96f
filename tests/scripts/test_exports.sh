#!/usr/bin/env bash
# The shared library exports the entry point and the framework's interface, nothing else.
set -euo pipefail
BUILD=$2
LIB=$BUILD/libtarvik_provider.so
fail=0
syms=$(nm -D --defined-only "$LIB" | awk '{print $3}' | sed 's/@.*//' | sort -u)

for want in construct_event_provider vyr_log_level vyr_dict_get vyr_dict_create \
            vyr_schema_add_type vyr_data_serializer_write_events vyr_create_type_system \
            vyr_getenv vyr_MD5 vyr_HexMD5 string_to_u8 bounded_string_to_int log_hex \
            _vyr_register_logger __vyr_init_logger_default _vyr_log; do
  if ! grep -qx "$want" <<<"$syms"; then echo "missing export: $want"; fail=1; fi
done
demangled=$(nm -DC --defined-only "$LIB")
for want in 'vyr::common::device_utils_get_zdt_hca_names' 'vyr::common::device_utils_get_hca_protocol'; do
  if ! grep -qF "$want" <<<"$demangled"; then echo "missing export: $want"; fail=1; fi
done

# Everything exported must be one of the framework's names.
while read -r s; do
  [ -z "$s" ] && continue
  case "$s" in
    construct_event_provider|vyr_*|_vyr_*|__vyr_*|string_to_*|bounded_string_to_int|boolean_to_string|trim_white_space|log_hex) ;;
    _ZN3vyr6common*) ;;
    *) echo "unexpected export: $s"; fail=1 ;;
  esac
done <<<"$syms"

if grep -E ' (_ZNSt|_ZNKSt|_ZTV|_ZTI|_ZTS)' <<<"$(nm -D --defined-only "$LIB")"; then
  echo "C++ internals exported"; fail=1
fi
[ $fail -eq 0 ] && echo "exports: ok"
exit $fail
