#include "chain/chain_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using veltrano::chain::Block;

TEST(ChainFile, BlocksCloseOnLinesThatBeginWithEnd) {
    const std::pair<const char*, std::vector<Block>> cases[] = {
        {"[BC]\nb=1;\nc=2;\nend\n", {{"[BC]", "b=1;", "c=2;"}}},
        // "ending" begins with "end" and closes the block; "x=1;end" and " end" do not.
        {"[BC]\nending=1;\nx=1;end\n end\nend\n", {{"[BC]"}, {"x=1;end", " end"}}},
        {"[A]\nend\n[B]\nk=1;\n", {{"[A]"}}},  // what follows the last closing line is dropped
        {"[A]\nk=1;\n", {}},
        {"[A]\nend\nend\n", {{"[A]"}, {}}},  // two closing lines in a row: an empty block
        // The last line needs no line break; carriage returns of Windows files are dropped.
        {"[A]\r\nk=1;\r\nend", {{"[A]", "k=1;"}}},
    };
    for (const auto& c : cases) {
        std::istringstream in(c.first);
        EXPECT_EQ(veltrano::chain::ReadChainFile(in).blocks, c.second) << c.first;
    }
}

TEST(ChainFile, ReadingStopsAtItsLimitAsIfTheFileEndedThere) {
    // A block closed just inside the limit counts; one that closes past it does not exist.
    const std::string filler(veltrano::chain::kMaxChainFileBytes - 12, 'x');
    std::istringstream in(filler + "\n[A]\nend\n[B]\nend\n");
    const veltrano::chain::ChainFile file = veltrano::chain::ReadChainFile(in);
    EXPECT_EQ(file.blocks, (std::vector<Block>{{filler, "[A]"}}));
    EXPECT_EQ(file.text.size(), veltrano::chain::kMaxChainFileBytes - 3);  // less 3 line feeds
}

TEST(ChainFile, FieldsLieBetweenTheFirstOpenerAndTheNextCloser) {
    const char* cases[][2] = {
        {"[CLAHE]", "CLAHE"}, {"  [Clahe] x]", "Clahe"},
        {"CLAHE]", "CLAHE"},  {"[CLAHE", ""},
        {"[]", ""},           {"] [x", ""},
        {"CLAHE", ""},        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(veltrano::chain::Field(c[0], '[', ']'), c[1]) << c[0];
    }
    EXPECT_EQ(veltrano::chain::Field("a==3;b=2;", '=', ';'), "=3");
}

}  // namespace
