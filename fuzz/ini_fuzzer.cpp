// The INI readers and writers on fuzzed files, sections, keys and values. Every call must stay
// within its buffers and give a described result; a value written must read back as written,
// wherever the file format can hold it (a key without "=" or line breaks, and so on).
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "veltrano/ini.h"

namespace {

bool HasAny(const std::string& text, const char* characters) {
    return text.find_first_of(characters, 0, std::strlen(characters)) != std::string::npos;
}

// Whether key=value written into section can be found again by the reader: a section name
// without "]" or line breaks, a key that begins no comment, header or white space and holds no
// "=" or line break, a value without line breaks, and none with a byte 0xFF, where the reader's
// text ends. (Text after a NUL is not part of a C string.)
bool RoundTrips(const std::string& section, const std::string& key, const std::string& value) {
    return !section.empty() && !key.empty() && !HasAny(section, "]\n\r\xff") &&
           !HasAny(key, "=\n\r\xff") && key[0] != ';' && key[0] != '[' &&
           !std::isspace(static_cast<unsigned char>(key[0])) && !HasAny(value, "\n\r\xff");
}

std::string CString(std::string text) {
    text.resize(std::strlen(text.c_str()));
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string file = fuzz::ScratchPath("fuzz.ini");
    const std::string section = CString(in.ConsumeRandomLengthString(24));
    const std::string key = CString(in.ConsumeRandomLengthString(24));
    const std::string value = CString(in.ConsumeRandomLengthString(48));
    const int bufferSize = in.ConsumeIntegralInRange<int>(-1, 80);
    const int number = in.ConsumeIntegral<int>();
    const float real = in.ConsumeFloatingPoint<float>();
    const std::string text = in.ConsumeRemainingBytesAsString();
    fuzz::WriteFile(file, text);
    // The readers take the text up to a NUL or 0xFF byte. A header "[section" with no "]" at the
    // very end of that text names the section, but a key inserted behind it joins the header's
    // line and cannot be found again: the format cannot hold that write.
    const std::string seen = text.substr(0, text.find_first_of(std::string("\0\xff", 2)));
    const std::string openHeader = "[" + section;
    const bool endsInOpenHeader =
        seen.size() >= openHeader.size() &&
        seen.compare(seen.size() - openHeader.size(), openHeader.size(), openHeader) == 0;

    // Reading: a described result, and a buffer written only within its size and terminated
    // when the key was found. The buffer has room to spare on both sides to catch overruns.
    std::vector<char> buffer(std::max(bufferSize, 0) + 16, '#');
    const int read = ReadString_INI(section.c_str(), key.c_str(), buffer.data() + 8, bufferSize,
                                    file.c_str(), "dflt");
    const bool badArguments = section.empty() || key.empty() || bufferSize < 1;
    FUZZ_CHECK(badArguments ? read == -1 : (read == 0 || read == 1), "result %d", read);
    for (int i = 0; i < 8; ++i) {
        FUZZ_CHECK(buffer[i] == '#' && buffer[buffer.size() - 1 - i] == '#', "buffer overrun");
    }
    if (read == 1) {
        const size_t length = std::strlen(buffer.data() + 8);
        FUZZ_CHECK(length <= static_cast<size_t>(bufferSize - 1), "value of %zu characters",
                   length);
    }

    // Writing, then reading back.
    const int written = WriteString_INI(section.c_str(), key.c_str(), value.c_str(), file.c_str());
    FUZZ_CHECK(written == (section.empty() || key.empty() ? -1 : 1), "WriteString_INI %d", written);
    if (written == 1 && RoundTrips(section, key, value) && !endsInOpenHeader) {
        std::vector<char> back(value.size() + 2, '\0');
        const int found = ReadString_INI(section.c_str(), key.c_str(), back.data(),
                                         static_cast<int>(back.size()), file.c_str(), nullptr);
        FUZZ_CHECK(found == 1 && value == back.data(), "[%s] %s: wrote '%s', read %d '%s'",
                   section.c_str(), key.c_str(), value.c_str(), found, back.data());

        FUZZ_CHECK(WriteInt_INI(section.c_str(), key.c_str(), number, file.c_str()) == 1, "int");
        const int intBack = ReadInt_INI(section.c_str(), key.c_str(), file.c_str(), ~number);
        FUZZ_CHECK(intBack == number, "wrote %d, read %d", number, intBack);

        FUZZ_CHECK(WriteFloat_INI(section.c_str(), key.c_str(), real, file.c_str()) == 1, "float");
        char formatted[512];
        std::snprintf(formatted, sizeof formatted, "%f", static_cast<double>(real));
        if (std::strlen(formatted) < 64) {  // the readers take at most 63 characters
            const float expected = static_cast<float>(std::strtod(formatted, nullptr));
            const float floatBack =
                ReadFloat_INI(section.c_str(), key.c_str(), file.c_str(), -1.0f);
            FUZZ_CHECK(floatBack == expected || (std::isnan(floatBack) && std::isnan(expected)),
                       "wrote %s, read %g", formatted, static_cast<double>(floatBack));
            // Read through a long double, so the last bit may differ from a direct conversion.
            const double doubleBack =
                ReadDouble_INI(section.c_str(), key.c_str(), file.c_str(), -1.0);
            const double direct = std::strtod(formatted, nullptr);
            FUZZ_CHECK(doubleBack == direct ||
                           std::fabs(doubleBack - direct) <= std::fabs(direct) * 1e-15 ||
                           (std::isnan(doubleBack) && std::isnan(direct)),
                       "wrote %s, read %.17g as double", formatted, doubleBack);
        }
        FUZZ_CHECK(WriteNULL_INI(section.c_str(), key.c_str(), file.c_str()) == 1, "null");
        char empty[8] = "xxxxxxx";
        FUZZ_CHECK(
            ReadString_INI(section.c_str(), key.c_str(), empty, 8, file.c_str(), nullptr) == 1 &&
                empty[0] == '\0',
            "an emptied key reads '%s'", empty);
    }
    return 0;
}
