// A schema received as JSON text and added to a type system, as a host adds
// the schemas its providers send.
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
    vyr_type_system_t *ts = vyr_create_type_system();
    FUZZ_CHECK(ts);

    uint8_t index = 0xEE;
    int rc = vyr_type_system_add_schema_from_serialized_json(ts, text.c_str(), &index);
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (rc == -1) {
        FUZZ_CHECK(ts->num_schemas == 0 && index == 0xEE);
    } else {
        // 255 stands for the counters schema.
        FUZZ_CHECK(index == 255 || (index == 0 && ts->num_schemas == 1));
        // The same text again is recognised by its digest and adds nothing.
        uint8_t again = 0xEE;
        FUZZ_CHECK(vyr_type_system_add_schema_from_serialized_json(ts, text.c_str(), &again) == 0);
        FUZZ_CHECK(again == index && ts->num_schemas == (index == 255 ? 0 : 1));
    }
    tscheck::round_trip(ts);
    tscheck::find_each(ts);
    vyr_destroy_type_system(ts);
    return 0;
}
