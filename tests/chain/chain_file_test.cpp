#include "chain/chain_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using veltrano::chain::Block;
using veltrano::chain::ChainFile;

ChainFile Read(const std::string& text) {
    std::istringstream in(text);
    return veltrano::chain::ReadChainFile(in);
}

TEST(ChainFile, BlocksCloseOnLinesThatBeginWithEnd) {
    struct Case {
        const char* text;
        std::vector<Block> blocks;
    };
    const Case cases[] = {
        {"[BC]\nb=1;\nc=2;\nend\n", {{"[BC]", "b=1;", "c=2;"}}},
        // "ending" begins with "end" and closes the block; a later "end" is not at the start.
        {"[BC]\nending=1;\nx=1;end\nend\n", {{"[BC]"}, {"x=1;end"}}},
        {" end\nend\n", {{" end"}}},
        // Whatever follows the last closing line is dropped.
        {"[A]\nend\n[B]\nk=1;\n", {{"[A]"}}},
        {"[A]\nk=1;\n", {}},
        {"", {}},
        // Two closing lines in a row give an empty block.
        {"[A]\nend\nend\n", {{"[A]"}, {}}},
        // The last line needs no line break; carriage returns of Windows files are dropped.
        {"[A]\r\nk=1;\r\nend", {{"[A]", "k=1;"}}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Read(c.text).blocks, c.blocks) << c.text;
    }
}

TEST(ChainFile, TextHoldsEveryLineWithoutSeparators) {
    EXPECT_EQ(Read("[BC]\nb=1;\nend\ntail\n").text, "[BC]b=1;endtail");
    EXPECT_EQ(Read("[BC]\r\nend\r\n").text, "[BC]end");
    EXPECT_EQ(Read("\n\n").text, "");
}

TEST(ChainFile, FieldsLieBetweenTheFirstOpenerAndTheNextCloser) {
    struct Case {
        const char* line;
        char open, close;
        const char* field;
    };
    const Case cases[] = {
        {"[CLAHE]", '[', ']', "CLAHE"},
        {"  [Clahe] comment", '[', ']', "Clahe"},
        {"CLAHE]", '[', ']', "CLAHE"},   // no opener: from the line start
        {"[CLAHE", '[', ']', ""},        // no closer
        {"[]", '[', ']', ""},
        {"] [x", '[', ']', ""},          // the only closer lies before the opener
        {"CLAHE", '[', ']', ""},
        {"peak=200;", '=', ';', "200"},
        {"peak = -7 ;", '=', ';', " -7 "},
        {"a=1;b=2;", '=', ';', "1"},
        {"a==3;", '=', ';', "=3"},
        {"200;", '=', ';', "200"},
        {"peak=200", '=', ';', ""},
        {"peak=;", '=', ';', ""},
        {"", '=', ';', ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(veltrano::chain::Field(c.line, c.open, c.close), c.field) << c.line;
    }
    EXPECT_EQ(veltrano::chain::StepName(Block{}), "");
    EXPECT_EQ(veltrano::chain::StepName(Block{"[FastNLM]", "rd=1;"}), "FastNLM");
}

TEST(ChainFile, NumbersFollowTheStandardConversions) {
    const Block block = {"[X]", "a= 42;", "b=-3xyz;", "c=0.25e1;", "d=7.9;", "e=+5;"};
    EXPECT_EQ(veltrano::chain::IntParam(block, 1), 42);
    EXPECT_EQ(veltrano::chain::IntParam(block, 2), -3);
    EXPECT_FLOAT_EQ(veltrano::chain::FloatParam(block, 3), 2.5f);
    EXPECT_EQ(veltrano::chain::IntParam(block, 4), 7);  // trailing text is ignored
    EXPECT_FLOAT_EQ(veltrano::chain::FloatParam(block, 4), 7.9f);
    EXPECT_EQ(veltrano::chain::IntParam(block, 5), 5);

    const Block bad = {"[X]", "a=;", "b=x1;", "c=99999999999;", "d=1e60;", "e=12"};
    EXPECT_THROW(veltrano::chain::IntParam(bad, 1), std::invalid_argument);
    EXPECT_THROW(veltrano::chain::FloatParam(bad, 1), std::invalid_argument);
    EXPECT_THROW(veltrano::chain::IntParam(bad, 2), std::invalid_argument);
    EXPECT_THROW(veltrano::chain::IntParam(bad, 3), std::out_of_range);
    EXPECT_THROW(veltrano::chain::FloatParam(bad, 4), std::out_of_range);
    EXPECT_THROW(veltrano::chain::IntParam(bad, 5), std::invalid_argument);  // no ";"
}

}  // namespace
