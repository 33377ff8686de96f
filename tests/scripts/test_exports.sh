#!/usr/bin/env bash
# The shared library exports the entry point and the framework's interface,
# nothing else (no C++ standard library internals).
set -uo pipefail
syms=$(nm -D --defined-only "$2/libtarvik_provider.so" | awk '{print $3}' | sed 's/@.*//' | sort -u)
fail=0
for want in construct_event_provider vyr_dict_create vyr_schema_add_type vyr_data_serializer_write_events \
    vyr_create_type_system vyr_getenv vyr_log_level vyr_dict_get vyr_MD5 vyr_HexMD5 string_to_u8 bounded_string_to_int log_hex \
    _vyr_register_logger __vyr_init_logger_default _vyr_log \
    _ZN3vyr6common30device_utils_get_zdt_hca_names _ZN3vyr6common29device_utils_get_hca_protocol; do
    grep -q "^$want" <<<"$syms" || { echo "missing export: $want" && fail=1; }
done
if grep -vE '^(construct_event_provider|vyr_.*|_vyr_.*|__vyr_.*|string_to_.*|bounded_string_to_int|boolean_to_string|trim_white_space|log_hex|_ZN3vyr6common.*)$' <<<"$syms"; then
    echo "unexpected exports above" && fail=1
fi
exit $fail
