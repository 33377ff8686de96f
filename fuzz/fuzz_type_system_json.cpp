// A whole type system read back from its JSON text, as one process hands its
// schemas to another.
#include <string>

#include "fuzz_support.h"
#include "type_system_check.h"
#include "vyr_type_system.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    vyr_type_system_t *ts = vyr_type_system_deserialize(text.c_str());
    if (!ts) return 0;
    FUZZ_CHECK(ts->num_schemas <= VYR_MAX_SCHEMAS);
    tscheck::round_trip(ts);
    tscheck::find_each(ts);
    vyr_destroy_type_system(ts);
    return 0;
}
