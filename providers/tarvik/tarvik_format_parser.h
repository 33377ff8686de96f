// Reader of phyprobe's CSV collection files and the typing of their fields.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

typedef int32_t tarvik_field_type_t;
enum : int32_t { TARVIK_FIELD_UINT64 = 0, TARVIK_FIELD_DOUBLE = 1, TARVIK_FIELD_STRING = 2 };

struct vyr_event_tarvik_type_t {
    std::string name;
    std::string field_name;  // the event field's name and description
    tarvik_field_type_t type;
    bool enabled;
};

// Only the bytes '0'..'9', and no leading '0' unless it is the whole text; "" counts as true.
bool isUnsignedDecimal(const std::string &text);

// Appends the comma-separated fields of `line` to `fields`: no quoting, no trimming, an
// empty field between adjacent commas, none after a final comma, none for an empty line.
// The collection loop splits later value lines with it too.
void tarvikSplitCsvLine(const std::string &line, std::vector<std::string> *fields);
// The same split into views of `line`; `tokens` is emptied first.
void tarvikSplitCsvView(std::string_view line, std::vector<std::string_view> &tokens);

class TarvikFormatParser {
  public:
    TarvikFormatParser(const std::string &filePath,
                       std::vector<vyr_event_tarvik_type_t> *typesInfo);
    bool parse();
    bool getCsvLine(std::istream &stream, std::string *line);
    void parseCsvLine(const std::string &line, std::vector<std::string> *fields);
    tarvik_field_type_t getTypeByValue(const std::string &value);
    void createTarvikTypesInfo();
    std::string filePath;
    std::vector<vyr_event_tarvik_type_t> *typesInfo;  // not owned: the creator releases it
    std::vector<std::string> headerFields;
    std::vector<std::string> valueFields;
    std::string headerId;
    int64_t valueLineOffset = 0;
};
