#include "tarvik_format_parser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <ext/stdio_filebuf.h>
#include <map>
#include <memory>

#include "vyr_logger.h"
#include "vyr_md5.h"
#include "vyr_schema.h"

bool isUnsignedDecimal(const std::string &text) {
    if (text.size() > 1 && text[0] == '0') return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    return true;
}

void tarvikSplitCsvView(std::string_view line, std::vector<std::string_view> &tokens) {
    // Same result as extracting comma-terminated pieces from a string stream until one
    // fails: the piece after a final comma is empty and at end of input, so it is dropped.
    tokens.clear();
    size_t pos = 0;
    while (pos < line.size()) {
        size_t comma = line.find(',', pos);
        if (comma == std::string_view::npos) {
            tokens.push_back(line.substr(pos));
            break;
        }
        tokens.push_back(line.substr(pos, comma - pos));
        pos = comma + 1;
    }
}

void tarvikSplitCsvLine(const std::string &line, std::vector<std::string> *fields) {
    std::vector<std::string_view> tokens;
    tarvikSplitCsvView(line, tokens);
    for (std::string_view t : tokens) fields->emplace_back(t);
}

TarvikFormatParser::TarvikFormatParser(const std::string &filePath,
                                       std::vector<vyr_event_tarvik_type_t> *typesInfo)
    : filePath(filePath), typesInfo(typesInfo) {}

bool TarvikFormatParser::parse() {
    std::string headerLine;
    std::string valueLine;

    // Not through a link, and only a regular file: a FIFO, socket or device
    // planted under /tmp could block the read or never end.
    int fd = open(filePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        fd = -1;
    }
    // The buffer takes the descriptor through fdopen, which may fail (memory).
    std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> buffer;
    if (fd >= 0) {
        buffer.reset(new __gnu_cxx::stdio_filebuf<char>(fd, std::ios::in));  // closes fd
        if (!buffer->is_open()) close(fd);
    }
    if (fd < 0 || !buffer->is_open()) {
        VYR_WARN("[tarvik_format] Could not open file %s", filePath.c_str());
        return false;
    }
    std::istream file(buffer.get());
    if (!getCsvLine(file, &headerLine)) {
        VYR_ERROR("Failed to read csv hdr line from file %s", filePath.c_str());
        return false;
    }
    // Later passes seek straight to the value line instead of rereading the header.
    valueLineOffset = static_cast<int64_t>(file.tellg());
    if (!getCsvLine(file, &valueLine)) {
        VYR_ERROR("Failed to read csv value line from file %s", filePath.c_str());
        return false;
    }

    // The header's bytes as read (a CR included) identify the event type; devices with
    // byte-identical headers share one.
    unsigned char digest[VYR_MD5_DIGEST_LENGTH];
    char text[VYR_MD5_STRING_LENGTH];
    vyr_MD5(headerLine.data(), headerLine.size(), digest);
    vyr_schema_id_to_schema_string(digest, text);
    headerId.assign(text, 32);

    parseCsvLine(headerLine, &headerFields);
    parseCsvLine(valueLine, &valueFields);
    createTarvikTypesInfo();
    return true;
}

bool TarvikFormatParser::getCsvLine(std::istream &stream, std::string *line) {
    line->clear();
    std::getline(stream, *line);
    if (stream.fail()) {
        line->clear();
        return false;
    }
    return !line->empty();
}

void TarvikFormatParser::parseCsvLine(const std::string &line, std::vector<std::string> *fields) {
    tarvikSplitCsvLine(line, fields);
}

tarvik_field_type_t TarvikFormatParser::getTypeByValue(const std::string &value) {
    if (value.empty()) return TARVIK_FIELD_STRING;
    if (isUnsignedDecimal(value)) return TARVIK_FIELD_UINT64;
    if (value.find(' ') != std::string::npos) return TARVIK_FIELD_STRING;
    size_t dot = value.find('.');
    if (dot == std::string::npos || value.find('.', dot + 1) != std::string::npos)
        return TARVIK_FIELD_STRING;
    std::string before = value.substr(0, dot);
    std::string after = value.substr(dot + 1);
    if (before.empty() && after.empty()) return TARVIK_FIELD_STRING;
    // Deliberately strict: no signs, no exponents, and the fraction keeps the no-leading-zero
    // rule (1.05 is text). Event types already in use depend on exactly these choices.
    if (isUnsignedDecimal(before) && isUnsignedDecimal(after)) return TARVIK_FIELD_DOUBLE;
    return TARVIK_FIELD_STRING;
}

namespace {

void replaceAll(std::string *text, char from, const char *to) {
    std::string out;
    out.reserve(text->size());
    for (char c : *text) {
        if (c == from)
            out += to;
        else
            out += c;
    }
    text->swap(out);
}

// The type system takes only plain names; these are the characters the tool puts in them.
std::string cleanFieldName(std::string name) {
    replaceAll(&name, '[', "_");
    replaceAll(&name, ']', "");
    replaceAll(&name, '<', "");
    replaceAll(&name, '>', "");
    replaceAll(&name, '/', "_");
    replaceAll(&name, '"', "");
    return name;
}

bool has(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

void TarvikFormatParser::createTarvikTypesInfo() {
    if (!typesInfo) return;
    typesInfo->clear();
    if (headerFields.empty()) return;

    std::map<std::string, int32_t> seen;
    static const std::string missing;
    for (size_t i = 0; i < headerFields.size(); ++i) {
        const std::string &header = headerFields[i];
        // A short first value line must not be read past: a missing value is empty.
        const std::string &value = i < valueFields.size() ? valueFields[i] : missing;

        std::string lower = header;
        for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

        // Repeats are numbered from 0 (N, N_0, N_1), on the name as written.
        std::string fieldName;
        auto it = seen.find(header);
        if (it == seen.end()) {
            seen.emplace(header, 0);
            fieldName = header;
        } else {
            fieldName = header + "_" + std::to_string(it->second);
            ++it->second;
        }
        fieldName = cleanFieldName(fieldName);

        // Names the tool is known to use decide before the value; only "version" and
        // "lane" ignore case.
        tarvik_field_type_t type;
        if (has(header, "hist"))
            type = TARVIK_FIELD_UINT64;
        else if (has(header, "Raw_Errors"))
            type = TARVIK_FIELD_UINT64;
        else if (has(header, "_BER_"))
            type = TARVIK_FIELD_DOUBLE;
        else if (has(lower, "version"))
            type = TARVIK_FIELD_STRING;
        else if (has(header, "temperature"))
            type = TARVIK_FIELD_UINT64;
        else if (has(lower, "lane"))
            type = TARVIK_FIELD_UINT64;
        else
            type = getTypeByValue(value);

        typesInfo->push_back({fieldName, fieldName, type, true});
    }
}
