// INI file access: each call reads the whole file as text, searches it and, for writes,
// builds the new text and rewrites the file.

#include "veltrano/ini.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>

namespace {

// The text buffers hold 4 MiB including the terminating NUL. Longer files are not supported:
// their text is cut at the limit on read, and a new text that would outgrow the buffer is cut
// at the limit before it is written.
constexpr size_t kTextBufferSize = 4u * 1024u * 1024u;
constexpr size_t kMaxTextLength = kTextBufferSize - 1;

// Numbers are formatted into and read from buffers of this size.
constexpr int kNumberBufferSize = 64;

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

bool IsLineBreak(char c) { return c == '\n' || c == '\r'; }

bool IsName(const char* s) { return s != nullptr && s[0] != '\0'; }

// Reads the file's text with text-mode character reads. The text ends at the end of the
// file, at a byte 0xFF, or at the buffer limit. A NUL byte ends it too: the text is a C string
// to every reader and writer, so nothing after a NUL could be found or written back anyway.
// Returns false when the file cannot be opened (or the text cannot be stored).
bool ReadText(const char* fileName, std::string& text) {
    text.clear();
    FilePtr file(std::fopen(fileName, "r"));
    if (!file) return false;
    try {
        int c;
        while (text.size() < kMaxTextLength && (c = std::fgetc(file.get())) != EOF) {
            if (c == 0xFF || c == 0) break;
            text.push_back(static_cast<char>(c));
        }
    } catch (const std::bad_alloc&) {
        text.clear();
        return false;
    }
    return true;
}

// Where a section and key were found in a text.
struct Location {
    bool sectionFound = false;
    size_t bodyStart = 0;  // body of the last section of the name (where a new key goes)
    bool keyFound = false;
    size_t valueStart = 0;  // first match in file order
    size_t valueEnd = 0;
};

size_t LineEnd(const std::string& t, size_t pos) {
    while (pos < t.size() && !IsLineBreak(t[pos])) ++pos;
    return pos;
}

size_t NextLine(const std::string& t, size_t pos) {
    const size_t end = LineEnd(t, pos);
    return end < t.size() ? end + 1 : end;
}

// Searches every section of the given name in file order for the key. Headers are lines
// beginning with "[" (at the start of the text or after a line feed or carriage return); the
// name runs to the next "]" or the end of the text. After a matching header the "]" and all
// white space are skipped, and the body's lines are examined up to the next line beginning
// with "[". A body line beginning with ";" is a comment; in any other line the key is the text
// before the first "=" and the value the rest of the line.
Location Find(const std::string& t, const char* section, const char* key) {
    Location loc;
    const size_t n = t.size();
    const size_t sectionLength = std::strlen(section);
    const size_t keyLength = std::strlen(key);
    const bool sectionNameable = std::strchr(section, ']') == nullptr;
    size_t pos = 0;  // always the start of a line
    while (pos < n) {
        if (t[pos] != '[') {
            pos = NextLine(t, pos);
            continue;
        }
        // The name matches when the section's text follows the "[" and is itself followed by
        // "]" or the end of the text (a section containing "]" never matches). Checking it
        // this way keeps the search linear however the file is made.
        const size_t nameStart = pos + 1;
        const size_t nameEnd = nameStart + sectionLength;
        if (!sectionNameable || nameEnd > n || t.compare(nameStart, sectionLength, section) != 0 ||
            (nameEnd < n && t[nameEnd] != ']')) {
            pos = NextLine(t, pos);
            continue;
        }
        size_t body = nameEnd < n ? nameEnd + 1 : n;
        while (body < n && std::isspace(static_cast<unsigned char>(t[body]))) ++body;
        loc.sectionFound = true;
        loc.bodyStart = body;

        size_t line = body;
        while (line < n && t[line] != '[') {
            const size_t end = LineEnd(t, line);
            if (t[line] != ';') {
                const void* found = std::memchr(t.data() + line, '=', end - line);
                const size_t equals = found ? static_cast<const char*>(found) - t.data() : end;
                if (equals < end && equals - line == keyLength &&
                    t.compare(line, keyLength, key) == 0) {
                    loc.keyFound = true;
                    loc.valueStart = equals + 1;
                    loc.valueEnd = end;
                    return loc;
                }
            }
            line = end < n ? end + 1 : n;
        }
        // The body ended at the next header or the end of the text. A body can begin in the
        // middle of its header's line ("[S] [T]"); a "[" there is no header.
        pos = line;
        if (pos < n && pos > 0 && !IsLineBreak(t[pos - 1])) pos = NextLine(t, pos);
    }
    return loc;
}

// The rest of a file behind a newly inserted key goes through the formatter with itself as the
// format, as it always has, so "%" sequences in it are interpreted. There are no arguments to
// format, so the only sequence that has a meaning is "%%", which becomes "%". Every other "%"
// is copied as it stands: a conversion such as "%s" or "%n" has no argument to read or write.
void AppendFormattedWithoutArguments(std::string& out, const std::string& text, size_t from) {
    for (size_t i = from; i < text.size(); ++i) {
        out.push_back(text[i]);
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') ++i;
    }
}

// Builds the new text for key=value in section from the old text.
std::string ComposeText(const std::string& old, const char* section, const char* key,
                        const char* value) {
    const Location loc = Find(old, section, key);
    std::string out;
    if (!loc.sectionFound) {
        out = old;
        if (!old.empty()) out += '\n';
        out.append("[").append(section).append("]\n").append(key).append("=").append(value);
        out += '\n';
    } else if (loc.keyFound) {
        out.assign(old, 0, loc.valueStart);
        out.append(value);
        out.append(old, loc.valueEnd, std::string::npos);
    } else {
        out.assign(old, 0, loc.bodyStart);
        out.append(key).append("=").append(value);
        out += '\n';
        AppendFormattedWithoutArguments(out, old, loc.bodyStart);
    }
    if (out.size() > kMaxTextLength) out.resize(kMaxTextLength);
    return out;
}

int WriteValue(const char* section, const char* key, const char* value, const char* fileName) {
    try {
        std::string old;
        ReadText(fileName, old);  // a missing file is an empty text
        const std::string text = ComposeText(old, section, key, value);
        FilePtr file(std::fopen(fileName, "w"));
        if (!file) return 0;
        bool written = std::fputs(text.c_str(), file.get()) >= 0;
        if (std::fclose(file.release()) != 0) written = false;
        return written ? 1 : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

// Conversions as atoi, atof and strtold. An integer outside int's range gives its nearest
// limit instead of undefined behaviour. The floating conversions need no such care: with IEEE
// types, narrowing rounds to the nearest value and overflows to infinity, so a text just above
// the largest float that rounds to it (3.4028235e38) still reads as that largest float.
int ToInt(const char* text) {
    const long long v = std::strtoll(text, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

static_assert(std::numeric_limits<float>::is_iec559 && std::numeric_limits<double>::is_iec559,
              "narrowing must round to nearest and overflow to infinity");

float ToFloat(const char* text) { return static_cast<float>(std::strtod(text, nullptr)); }

double ToDouble(const char* text) { return static_cast<double>(std::strtold(text, nullptr)); }

bool WriteArgumentsValid(const char* section, const char* key, const char* fileName) {
    return IsName(section) && IsName(key) && fileName != nullptr;
}

}  // namespace

int ReadString_INI(const char* section, const char* key, char* buffer, int bufferSize,
                   const char* fileName, const char* defaultValue) {
    if (!IsName(section) || !IsName(key) || buffer == nullptr || bufferSize < 1 ||
        fileName == nullptr) {
        return -1;
    }
    std::string text;
    Location loc;
    if (ReadText(fileName, text)) loc = Find(text, section, key);
    if (!loc.keyFound) {
        // Bounded by bufferSize and, like the copy it always was, unterminated when the default
        // fills the buffer.
        if (defaultValue != nullptr)
            std::strncpy(buffer, defaultValue, static_cast<size_t>(bufferSize));
        return 0;
    }
    const size_t size = static_cast<size_t>(bufferSize);
    std::memset(buffer, 0, size);
    size_t length = loc.valueEnd - loc.valueStart;
    if (length > size - 1) length = size - 1;
    std::memcpy(buffer, text.data() + loc.valueStart, length);
    buffer[length] = '\0';
    return 1;
}

// The numeric readers take any result but "not found" as found: with bad arguments they
// convert their cleared buffer and so return 0.
int ReadInt_INI(const char* section, const char* key, const char* fileName, int defaultValue) {
    char text[kNumberBufferSize] = {};
    if (ReadString_INI(section, key, text, kNumberBufferSize, fileName, nullptr) == 0)
        return defaultValue;
    return ToInt(text);
}

float ReadFloat_INI(const char* section, const char* key, const char* fileName,
                    float defaultValue) {
    char text[kNumberBufferSize] = {};
    if (ReadString_INI(section, key, text, kNumberBufferSize, fileName, nullptr) == 0)
        return defaultValue;
    return ToFloat(text);
}

double ReadDouble_INI(const char* section, const char* key, const char* fileName,
                      double defaultValue) {
    char text[kNumberBufferSize] = {};
    if (ReadString_INI(section, key, text, kNumberBufferSize, fileName, nullptr) == 0)
        return defaultValue;
    return ToDouble(text);
}

int WriteString_INI(const char* section, const char* key, const char* value, const char* fileName) {
    if (!WriteArgumentsValid(section, key, fileName) || value == nullptr) return -1;
    return WriteValue(section, key, value, fileName);
}

int WriteInt_INI(const char* section, const char* key, int value, const char* fileName) {
    if (!WriteArgumentsValid(section, key, fileName)) return -1;
    char text[kNumberBufferSize];
    std::snprintf(text, sizeof text, "%d", value);
    return WriteValue(section, key, text, fileName);
}

int WriteFloat_INI(const char* section, const char* key, float value, const char* fileName) {
    if (!WriteArgumentsValid(section, key, fileName)) return -1;
    char text[kNumberBufferSize];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return WriteValue(section, key, text, fileName);
}

int WriteNULL_INI(const char* section, const char* key, const char* fileName) {
    if (!WriteArgumentsValid(section, key, fileName)) return -1;
    return WriteValue(section, key, "", fileName);
}
