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

namespace {

constexpr size_t kTextLimit = 4u * 1024u * 1024u - 1;  // characters a file text can hold

std::string ReadValue(const char* section, const char* key, const char* file, int size = 256) {
    std::vector<char> buffer(static_cast<size_t>(size), '?');
    const int result = ReadString_INI(section, key, buffer.data(), size, file, "<default>");
    if (result != 1) return "<" + std::to_string(result) + ">";
    return buffer.data();
}

TEST(IniWrite, BuildsTheExpectedTextForEveryCase) {
    struct Case {
        const char* name;
        const char* before;  // nullptr: no file
        const char* section;
        const char* key;
        const char* value;
        const char* after;
    };
    const Case cases[] = {
        {"missing file", nullptr, "S", "k", "v", "[S]\nk=v\n"},
        {"empty file", "", "S", "k", "v", "[S]\nk=v\n"},
        {"new section appended after a blank line", "[A]\na=1\n", "B", "b", "2",
         "[A]\na=1\n\n[B]\nb=2\n"},
        {"new section after a text without final line feed", "[A]\na=1", "B", "b", "2",
         "[A]\na=1\n[B]\nb=2\n"},
        {"new key becomes the first line of the section", "[S]\nk=v\n[T]\nt=1\n", "S", "j", "w",
         "[S]\nj=w\nk=v\n[T]\nt=1\n"},
        {"new key goes after blank lines following the header", "[S]\n\n\nk=v\n", "S", "j", "w",
         "[S]\n\n\nj=w\nk=v\n"},
        {"new key in an empty last section", "[A]\na=1\n[S]\n", "S", "k", "v",
         "[A]\na=1\n[S]\nk=v\n"},
        {"new key in a section directly followed by another", "[S]\n[T]\nt=1\n", "S", "k", "v",
         "[S]\nk=v\n[T]\nt=1\n"},
        {"replacement keeps everything around the value", "; c\n[S]\nk=old value\nz=1\n[T]\nk=t\n",
         "S", "k", "new", "; c\n[S]\nk=new\nz=1\n[T]\nk=t\n"},
        {"replacement with an empty old value", "[S]\nk=\nz=1\n", "S", "k", "7", "[S]\nk=7\nz=1\n"},
        {"replacement of the last value without line feed", "[S]\nk=1", "S", "k", "22", "[S]\nk=22"},
        {"duplicate section: first match in file order is replaced",
         "[S]\nk=1\n[T]\nb=2\n[S]\nk=3\n", "S", "k", "9", "[S]\nk=9\n[T]\nb=2\n[S]\nk=3\n"},
        {"duplicate section: key of the second one is found", "[S]\na=1\n[T]\nb=2\n[S]\nc=3\n", "S",
         "c", "9", "[S]\na=1\n[T]\nb=2\n[S]\nc=9\n"},
        {"duplicate section: new key goes into the last one", "[S]\na=1\n[T]\nb=2\n[S]\nc=3\n", "S",
         "d", "4", "[S]\na=1\n[T]\nb=2\n[S]\nd=4\nc=3\n"},
        {"a header in the middle of a line is no header", "x=[S]\nk=1\n", "S", "k", "2",
         "x=[S]\nk=1\n\n[S]\nk=2\n"},
        {"a key in another section is not touched", "[T]\nk=1\n", "S", "k", "2",
         "[T]\nk=1\n\n[S]\nk=2\n"},
        {"a comment line is not a key", "[S]\n;k=1\n", "S", "k", "2", "[S]\nk=2\n;k=1\n"},
        {"section names are case-sensitive", "[s]\nk=1\n", "S", "k", "2", "[s]\nk=1\n\n[S]\nk=2\n"},
        {"a bracket after a header on its line is no header", "[S] [S]\nk=1\n", "S", "k", "2",
         "[S] k=2\n[S]\nk=1\n"},
        {"a value containing % is written as it is", "", "S", "k", "5%d%%", "[S]\nk=5%d%%\n"},
    };
    for (const Case& c : cases) {
        ScratchFile file;
        if (c.before != nullptr) file.write(c.before);
        EXPECT_EQ(WriteString_INI(c.section, c.key, c.value, file.path()), 1) << c.name;
        EXPECT_EQ(file.read(), c.after) << c.name;
    }
}

TEST(IniWrite, RestOfTheFileBehindANewKeyGoesThroughTheFormatter) {
    // Only "%%" has a meaning without arguments; every other "%" sequence stays as it is.
    // The text before the insertion point and a replaced value are never formatted.
    ScratchFile file;
    file.write("[P]\np=100%%\n[S]\nk=50%%\nfmt=%s %n %d %\n");
    ASSERT_EQ(WriteString_INI("S", "new", "1", file.path()), 1);
    EXPECT_EQ(file.read(), "[P]\np=100%%\n[S]\nnew=1\nk=50%\nfmt=%s %n %d %\n");

    file.write("[S]\nk=50%%\nz=%%\n");
    ASSERT_EQ(WriteString_INI("S", "k", "1", file.path()), 1);
    EXPECT_EQ(file.read(), "[S]\nk=1\nz=%%\n");
}

TEST(IniWrite, NumericWritersFormatTheirValues) {
    ScratchFile file;
    EXPECT_EQ(WriteInt_INI("S", "i", -42, file.path()), 1);
    EXPECT_EQ(WriteFloat_INI("S", "f", 0.5f, file.path()), 1);
    EXPECT_EQ(WriteFloat_INI("S", "g", -3.25f, file.path()), 1);
    EXPECT_EQ(WriteFloat_INI("S", "big", FLT_MAX, file.path()), 1);
    EXPECT_EQ(WriteNULL_INI("S", "n", file.path()), 1);
    EXPECT_EQ(file.read(),
              "[S]\nn=\nbig=340282346638528859811704183484516925440.000000\ng=-3.250000\n"
              "f=0.500000\ni=-42\n");
    EXPECT_EQ(WriteNULL_INI("S", "i", file.path()), 1);
    EXPECT_EQ(ReadValue("S", "i", file.path()), "");
}

TEST(IniWrite, TextEndsAtByteFF) {
    ScratchFile file;
    file.write("[S]\nk=1\n\xFFgarbage\n[T]\nt=2\n");
    ASSERT_EQ(WriteString_INI("S", "k", "2", file.path()), 1);
    EXPECT_EQ(file.read(), "[S]\nk=2\n");
}

TEST(IniRead, FindsValuesByTheTextModel) {
    ScratchFile file;
    file.write(
        "x=[S]\n"
        "[S]   \n\n"
        "  first=a\n"
        ";c=comment\n"
        "#x=hash\n"
        "key = spaced value \n"
        "k2=a=b\n"
        "kk=long\n"
        "empty=\n"
        "  indented=i\n"
        "[T]\n"
        "t=1\r"
        "u=cr\r\n"
        "[Sec]\n"
        "sec=1\n"
        "[S]\n"
        "second=2\n"
        "kk=shadowed\n");
    struct Case {
        const char* section;
        const char* key;
        const char* expected;
    };
    const Case cases[] = {
        {"S", "first", "a"},             // white space after the header is skipped
        {"S", ";c", "<0>"},              // comments never match
        {"S", "#x", "hash"},             // "#" is an ordinary character
        {"S", "key", "<0>"},             // keys are not trimmed
        {"S", "key ", " spaced value "}, // nor are values
        {"S", "k2", "a=b"},              // the key ends at the first "="
        {"S", "k", "<0>"},               // keys match in full length
        {"S", "kk", "long"},             // the first match in file order wins
        {"S", "empty", ""},
        {"S", "indented", "<0>"},        // later lines keep their leading blanks
        {"S", "  indented", "i"},
        {"S", "second", "2"},            // a repeated section is searched too
        {"S", "t", "<0>"},               // a body ends at the next section
        {"T", "t", "1"},                 // a carriage return ends a line
        {"T", "u", "cr"},
        {"Se", "sec", "<0>"},            // section names match in full length
        {"sec", "sec", "<0>"},           // and with their case
        {"Sec", "sec", "1"},
        {"X", "k", "<0>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ReadValue(c.section, c.key, file.path()), c.expected)
            << c.section << "/" << c.key;
    }
}

TEST(IniRead, CutsLongValuesAndCopiesDefaultsBounded) {
    ScratchFile file;
    file.write("[S]\nk=abcdef\n");

    char buffer[8];
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 4, file.path(), nullptr), 1);
    EXPECT_EQ(std::string(buffer, 5), std::string("abc\0?", 5));  // cut to size - 1, terminated

    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 1, file.path(), nullptr), 1);
    EXPECT_EQ(std::string(buffer, 2), std::string("\0?", 2));

    // A default as long as the buffer fills it without terminator; a shorter one is padded.
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(ReadString_INI("S", "none", buffer, 4, file.path(), "wxyz"), 0);
    EXPECT_EQ(std::string(buffer, 5), "wxyz?");
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(ReadString_INI("S", "none", buffer, 6, file.path(), "wx"), 0);
    EXPECT_EQ(std::string(buffer, 7), std::string("wx\0\0\0\0?", 7));

    // No default: the buffer is left alone.
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(ReadString_INI("S", "none", buffer, 8, file.path(), nullptr), 0);
    EXPECT_EQ(std::string(buffer, 8), "????????");

    // A missing file is "not found".
    ScratchFile missing("_missing");
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 8, missing.path(), "d"), 0);
    EXPECT_STREQ(buffer, "d");
}

TEST(IniRead, NumericReadersConvertOrFallBackToTheDefault) {
    ScratchFile file;
    file.write(
        "[N]\ni=42abc\nneg= -7\nword=x\nhuge=99999999999\ntiny=-99999999999\n"
        "f=0.25\nfbig=1e300\nd=0.1234567890123\ndbig=1e400\n"
        "fmax=3.4028235e38\ndmax=1.7976931348623158e308\n");
    const char* p = file.path();
    EXPECT_EQ(ReadInt_INI("N", "i", p, -1), 42);
    EXPECT_EQ(ReadInt_INI("N", "neg", p, -1), -7);
    EXPECT_EQ(ReadInt_INI("N", "word", p, -1), 0);  // found, so no default
    EXPECT_EQ(ReadInt_INI("N", "huge", p, -1), INT_MAX);
    EXPECT_EQ(ReadInt_INI("N", "tiny", p, -1), INT_MIN);
    EXPECT_EQ(ReadInt_INI("N", "none", p, -1), -1);
    EXPECT_EQ(ReadFloat_INI("N", "f", p, -1.0f), 0.25f);
    EXPECT_EQ(ReadFloat_INI("N", "word", p, -1.0f), 0.0f);
    EXPECT_EQ(ReadFloat_INI("N", "fbig", p, -1.0f), HUGE_VALF);
    // Texts just above the largest value that round to it are not overflows.
    EXPECT_EQ(ReadFloat_INI("N", "fmax", p, -1.0f), FLT_MAX);
    EXPECT_EQ(ReadDouble_INI("N", "dmax", p, -1.0), DBL_MAX);
    EXPECT_EQ(ReadFloat_INI("N", "none", p, 1.5f), 1.5f);
    EXPECT_DOUBLE_EQ(ReadDouble_INI("N", "d", p, -1.0), 0.1234567890123);
    EXPECT_EQ(ReadDouble_INI("N", "dbig", p, -1.0), HUGE_VAL);
    EXPECT_EQ(ReadDouble_INI("N", "none", p, 2.5), 2.5);
}

TEST(IniArguments, BadArgumentsAreRejectedWithoutTouchingTheFile) {
    ScratchFile file;
    file.write("[S]\nk=1\n");
    const char* p = file.path();
    char buffer[4] = {'?', '?', '?', '?'};
    EXPECT_EQ(ReadString_INI(nullptr, "k", buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("", "k", buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", nullptr, buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "", buffer, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", nullptr, 4, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 0, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, -1, p, "d"), -1);
    EXPECT_EQ(ReadString_INI("S", "k", buffer, 4, nullptr, "d"), -1);
    EXPECT_EQ(std::string(buffer, 4), "????");

    // With bad arguments the numeric readers give 0, not the default.
    EXPECT_EQ(ReadInt_INI("S", "k", nullptr, 77), 0);
    EXPECT_EQ(ReadInt_INI("", "k", p, 77), 0);
    EXPECT_EQ(ReadFloat_INI("S", "k", nullptr, 7.5f), 0.0f);
    EXPECT_EQ(ReadDouble_INI("S", nullptr, p, 7.5), 0.0);

    EXPECT_EQ(WriteString_INI(nullptr, "k", "v", p), -1);
    EXPECT_EQ(WriteString_INI("S", "", "v", p), -1);
    EXPECT_EQ(WriteString_INI("S", "k", nullptr, p), -1);
    EXPECT_EQ(WriteString_INI("S", "k", "v", nullptr), -1);
    EXPECT_EQ(WriteInt_INI("", "k", 1, p), -1);
    EXPECT_EQ(WriteInt_INI("S", "k", 1, nullptr), -1);
    EXPECT_EQ(WriteFloat_INI("S", nullptr, 1.0f, p), -1);
    EXPECT_EQ(WriteNULL_INI("S", "", p), -1);
    EXPECT_EQ(WriteNULL_INI("S", "k", nullptr), -1);
    EXPECT_EQ(file.read(), "[S]\nk=1\n");
}

TEST(IniArguments, UnwritableFileGivesZero) {
    const char* path = "no_such_folder_for_params_tests/x.ini";
    EXPECT_EQ(WriteString_INI("S", "k", "v", path), 0);
    EXPECT_EQ(WriteInt_INI("S", "k", 1, path), 0);
    EXPECT_EQ(WriteNULL_INI("S", "k", path), 0);
    EXPECT_EQ(WriteString_INI("S", "k", "v", ""), 0);
    EXPECT_EQ(ReadInt_INI("S", "k", "", 5), 5);
}

TEST(IniLimits, OversizedFileIsCutAtTheBufferLimit) {
    // 5 MiB of text: a section at the start, filler, and a section beyond the limit.
    const std::string head = "[S]\nk=1\n";
    std::string text = head;
    const std::string filler = "filler line without key but with %% and [brackets]\n";
    while (text.size() < 5u * 1024u * 1024u) text += filler;
    text += "[T]\nt=1\n";
    ScratchFile file;
    file.write(text);

    EXPECT_EQ(ReadValue("S", "k", file.path()), "1");
    EXPECT_EQ(ReadValue("T", "t", file.path()), "<0>");

    // Replacing a value of the same length writes back exactly the first limit characters.
    ASSERT_EQ(WriteString_INI("S", "k", "2", file.path()), 1);
    std::string expected = text.substr(0, kTextLimit);
    expected[6] = '2';
    EXPECT_EQ(file.read(), expected);

    // Inserting a key pushes the text out past the limit: it is cut there (the filler's "%%"
    // became "%" on the way).
    file.write(text);
    ASSERT_EQ(WriteString_INI("S", "new", "v", file.path()), 1);
    // The old text was cut at the limit before the new one was built.
    std::string inserted = "[S]\nnew=v\n";
    for (size_t i = 4; i < kTextLimit; ++i) {
        inserted += text[i];
        if (text[i] == '%' && i + 1 < kTextLimit && text[i + 1] == '%') ++i;
    }
    ASSERT_LT(inserted.size(), kTextLimit);
    EXPECT_EQ(file.read(), inserted);

    // Without "%" in the rest, the inserted text does outgrow the limit and is cut there.
    std::string plain = head;
    while (plain.size() < 5u * 1024u * 1024u) plain += "plain filler line\n";
    file.write(plain);
    ASSERT_EQ(WriteString_INI("S", "new", "v", file.path()), 1);
    EXPECT_EQ(file.read(), ("[S]\nnew=v\n" + plain.substr(4)).substr(0, kTextLimit));
}

TEST(IniLimits, HugeValueIsReadUpToTheLimit) {
    std::string text = "[S]\nk=";
    text.append(5u * 1024u * 1024u, 'v');
    ScratchFile file;
    file.write(text);
    std::vector<char> buffer(6u * 1024u * 1024u, '?');
    ASSERT_EQ(ReadString_INI("S", "k", buffer.data(), static_cast<int>(buffer.size()), file.path(),
                             nullptr),
              1);
    EXPECT_EQ(std::strlen(buffer.data()), kTextLimit - 6);

    // A new section cannot be added to a full text: the text is cut at the limit instead.
    ASSERT_EQ(WriteString_INI("T", "t", "1", file.path()), 1);
    EXPECT_EQ(file.read(), text.substr(0, kTextLimit));
}

}  // namespace
