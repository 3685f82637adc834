#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "test_files.h"
#include "veltrano.h"

using params_test::ScratchFile;
using params_test::Values;

namespace {

constexpr size_t kTextLimit = 4u * 1024u * 1024u - 1;  // characters a file text can hold

// The value found, or the result code in angle brackets.
std::string ReadValue(const char* section, const char* key, const char* file, int size = 256) {
    std::vector<char> buffer(static_cast<size_t>(size), '?');
    const int result = ReadString_INI(section, key, buffer.data(), size, file, "<default>");
    return result == 1 ? std::string(buffer.data()) : "<" + std::to_string(result) + ">";
}

// One write: the text before (nullptr: no file), section, key, value, the text after.
struct WriteCase {
    const char* name;
    const char *before, *section, *key, *value, *after;
    friend void PrintTo(const WriteCase& c, std::ostream* os) { *os << c.name; }
};

class IniWriteCase : public testing::TestWithParam<WriteCase> {};

TEST_P(IniWriteCase, BuildsTheExpectedText) {
    const WriteCase& c = GetParam();
    ScratchFile file;
    if (c.before != nullptr) file.write(c.before);
    EXPECT_EQ(WriteString_INI(c.section, c.key, c.value, file.path()), 1);
    EXPECT_EQ(file.read(), c.after);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IniWriteCase,
    testing::Values(
        WriteCase{"NoFile", nullptr, "S", "k", "v", "[S]\nk=v\n"},
        WriteCase{"ValueIsNotFormatted", "", "S", "k", "5%d%%", "[S]\nk=5%d%%\n"},
        // A new section follows a line feed; a new key becomes the first line of its section.
        WriteCase{"NewSectionAfterALineFeed", "[A]\na=1\n", "B", "b", "2",
                  "[A]\na=1\n\n[B]\nb=2\n"},
        WriteCase{"NewKeyFirstBehindBlankLines", "[S]\n\n\nk=v\n[T]\n", "S", "j", "w",
                  "[S]\n\n\nj=w\nk=v\n[T]\n"},
        WriteCase{"NewKeyInAnEmptySection", "[S]\n[T]\nt=1\n", "S", "k", "v",
                  "[S]\nk=v\n[T]\nt=1\n"},
        // Replacement keeps everything around the value, a missing final line feed included.
        WriteCase{"ReplacementKeepsTheRest", "; c\n[S]\nk=old\nz=1\n[T]\nk=t\n", "S", "k", "new",
                  "; c\n[S]\nk=new\nz=1\n[T]\nk=t\n"},
        // Repeated sections: the first match in file order, else the last section of the name.
        WriteCase{"RepeatedSectionsFirstMatch", "[S]\nk=1\n[T]\nb=2\n[S]\nk=3\n", "S", "k", "9",
                  "[S]\nk=9\n[T]\nb=2\n[S]\nk=3\n"},
        WriteCase{"RepeatedSectionsMatchInTheSecond", "[S]\na=1\n[T]\nb=2\n[S]\nc=3\n", "S", "c",
                  "9", "[S]\na=1\n[T]\nb=2\n[S]\nc=9\n"},
        WriteCase{"RepeatedSectionsNewKeyInTheLast", "[S]\na=1\n[T]\nb=2\n[S]\nc=3\n", "S", "d",
                  "4", "[S]\na=1\n[T]\nb=2\n[S]\nd=4\nc=3\n"},
        // Neither a header in the middle of a line, nor a comment line, nor another case.
        WriteCase{"HeaderInsideALineIsNone", "x=[S]\nk=1\n", "S", "k", "2",
                  "x=[S]\nk=1\n\n[S]\nk=2\n"},
        WriteCase{"CommentedKeyIsNone", "[S]\n;k=1\n", "S", "k", "2", "[S]\nk=2\n;k=1\n"},
        // Deliberately, the text behind an inserted key goes through the formatter: "%%"
        // becomes "%"; the text before it and a replaced line are never formatted.
        WriteCase{"TextBehindAnInsertedKeyIsFormatted", "[P]\np=1%%\n[S]\nk=5%%\nf=%s %\n", "S",
                  "n", "1", "[P]\np=1%%\n[S]\nn=1\nk=5%\nf=%s %\n"},
        WriteCase{"ReplacedLineIsNotFormatted", "[S]\nk=5%%\nz=%%\n", "S", "k", "1",
                  "[S]\nk=1\nz=%%\n"},
        // The text ends at a byte 0xFF.
        WriteCase{"TextEndsAtByteFF", "[S]\nk=1\n\xFFgarbage\n[T]\nt=2\n", "S", "k", "2",
                  "[S]\nk=2\n"}),
    [](const testing::TestParamInfo<WriteCase>& info) { return std::string(info.param.name); });

TEST(IniWrite, NumericWritersFormatTheirValues) {
    ScratchFile file;
    EXPECT_EQ(WriteInt_INI("S", "i", -42, file.path()), 1);
    EXPECT_EQ(WriteFloat_INI("S", "big", FLT_MAX, file.path()), 1);
    EXPECT_EQ(WriteNULL_INI("S", "n", file.path()), 1);
    EXPECT_EQ(file.read(), "[S]\nn=\nbig=340282346638528859811704183484516925440.000000\ni=-42\n");
}

TEST(IniRead, FindsValuesByTheTextModel) {
    ScratchFile file;
    file.write(
        "x=[S]\n[S]   \n\n  first=a\n;c=comment\n#x=hash\nkey = spaced value \nk2=a=b\n"
        "[T]\nt=1\ru=cr\r\n[Sec]\nsec=1\n");
    const struct {
        const char *section, *key, *expected;
    } cases[] = {
        {"S", "first", "a"},              // white space after the header is skipped
        {"S", ";c", "<0>"},               // comments never match
        {"S", "#x", "hash"},              // "#" is an ordinary character
        {"S", "key", "<0>"},              // keys are not trimmed
        {"S", "key ", " spaced value "},  // nor are values
        {"S", "k2", "a=b"},               // the key ends at the first "="
        {"S", "k", "<0>"},                // keys match in full length
        {"S", "t", "<0>"},                // a body ends at the next section
        {"T", "t", "1"},                  // a carriage return ends a line
        {"Se", "sec", "<0>"},             // section names match in full length
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ReadValue(c.section, c.key, file.path()), c.expected) << c.key;
    }
}

TEST(IniRead, CutsLongValuesAndCopiesDefaultsBounded) {
    ScratchFile file;
    file.write("[S]\nk=abcdef\n");
    // Cases: key, buffer size, default, result, the first 7 bytes of the buffer afterwards.
    const struct {
        const char* key;
        int size;
        const char* fallback;
        int result;
        const char* bytes;
    } cases[] = {
        {"k", 4, nullptr, 1, "abc\0???"},    // cut to size - 1 and terminated
        {"none", 4, "wxyz", 0, "wxyz???"},   // a default as long as the buffer: no terminator
        {"none", 7, nullptr, 0, "???????"},  // no default: the buffer is left alone
    };
    for (const auto& c : cases) {
        char buffer[7];
        std::memset(buffer, '?', sizeof buffer);
        EXPECT_EQ(ReadString_INI("S", c.key, buffer, c.size, file.path(), c.fallback), c.result);
        EXPECT_EQ(std::string(buffer, 7), std::string(c.bytes, 7)) << c.key << c.size;
    }
    EXPECT_EQ(ReadValue("S", "k", "params_missing_file.ini"), "<0>");
}

TEST(IniRead, NumericReadersConvertOrFallBackToTheDefault) {
    ScratchFile file;
    file.write(
        "[N]\ni=42abc\nword=x\nhuge=99999999999\nf=0.25\nfbig=1e300\nd=0.1234567890123\n"
        "dbig=1e400\nfmax=3.4028235e38\ndmax=1.7976931348623158e308\n");
    const char* p = file.path();
    // A key that is found is converted, even when it holds no number; a missing key gives
    // the default.
    EXPECT_EQ(Values(ReadInt_INI("N", "i", p, -1), ReadInt_INI("N", "word", p, -1),
                     ReadInt_INI("N", "huge", p, -1), ReadInt_INI("N", "none", p, -1)),
              Values(42, 0, INT_MAX, -1));
    // Texts just above the largest value that round to it are not overflows.
    EXPECT_EQ(Values(ReadFloat_INI("N", "f", p, -1.0f), ReadFloat_INI("N", "fbig", p, -1.0f),
                     ReadFloat_INI("N", "fmax", p, -1.0f), ReadFloat_INI("N", "none", p, 1.5f)),
              Values(0.25f, HUGE_VALF, FLT_MAX, 1.5f));
    EXPECT_EQ(Values(ReadDouble_INI("N", "d", p, -1.0), ReadDouble_INI("N", "dbig", p, -1.0),
                     ReadDouble_INI("N", "dmax", p, -1.0), ReadDouble_INI("N", "none", p, 2.5)),
              Values(0.1234567890123, HUGE_VAL, DBL_MAX, 2.5));
}

TEST(IniArguments, BadArgumentsAreRejectedWithoutTouchingAnything) {
    ScratchFile file;
    file.write("[S]\nk=1\n");
    const char* p = file.path();
    char buffer[4] = {'?', '?', '?', '?'};
    EXPECT_EQ(ReadString_INI(nullptr, "k", buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "", buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", nullptr, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 0, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 4, nullptr, "d"), -1);
    EXPECT_EQ(std::string(buffer, 4), "????");
    // Deliberately, the numeric readers then give 0, not the default.
    EXPECT_EQ(ReadInt_INI("S", "k", nullptr, 77), 0);
    EXPECT_EQ(ReadFloat_INI("", "k", p, 7.5f), 0.0f);
    EXPECT_EQ(ReadDouble_INI("S", nullptr, p, 7.5), 0.0);
    EXPECT_EQ(WriteString_INI(nullptr, "k", "v", p), -1);
    EXPECT_EQ(WriteInt_INI("", "k", 1, p), -1);
    EXPECT_EQ(WriteNULL_INI("S", "k", nullptr), -1);
    EXPECT_EQ(file.read(), "[S]\nk=1\n");
    // A file that cannot be created is "not written".
    EXPECT_EQ(WriteString_INI("S", "k", "v", "no_such_folder_for_params_tests/x.ini"), 0);
}

TEST(IniLimits, TextsAreCutAtTheBufferLimit) {
    // 5 MiB: a section at the start, filler, and a section beyond the limit.
    std::string text = "[S]\nk=1\n";
    while (text.size() < 5u * 1024u * 1024u) text += "filler line with [brackets]\n";
    text += "[T]\nt=1\n";
    ScratchFile file;
    file.write(text);
    EXPECT_EQ(ReadValue("T", "t", file.path()), "<0>");
    // An inserted key pushes the text past the limit: it is cut there. (Whole texts are
    // compared with == so that a failure does not print megabytes.)
    ASSERT_EQ(WriteString_INI("S", "new", "v", file.path()), 1);
    EXPECT_TRUE(file.read() == ("[S]\nnew=v\n" + text.substr(4)).substr(0, kTextLimit));
}

}  // namespace
