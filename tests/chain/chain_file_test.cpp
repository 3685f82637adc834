#include "chain/chain_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <streambuf>
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

// count bytes of 'x' and then a tail, made as they are read: a file at the reader's limit
// without two more copies of it in memory.
class FillerThenTail : public std::streambuf {
public:
    FillerThenTail(size_t count, std::string tail) : left_(count), tail_(std::move(tail)) {
        std::fill(std::begin(chunk_), std::end(chunk_), 'x');
    }

protected:
    int_type underflow() override {
        if (left_ > 0) {
            const size_t n = std::min(sizeof chunk_, left_);
            left_ -= n;
            setg(chunk_, chunk_, chunk_ + n);
        } else if (!tailGiven_) {
            tailGiven_ = true;
            setg(tail_.data(), tail_.data(), tail_.data() + tail_.size());
        } else {
            return traits_type::eof();
        }
        return traits_type::to_int_type(*gptr());
    }

private:
    size_t left_;
    std::string tail_;
    bool tailGiven_ = false;
    char chunk_[1 << 16];
};

TEST(ChainFile, ReadingStopsAtItsLimitAsIfTheFileEndedThere) {
    // A block closed just inside the limit counts; one that closes past it does not exist.
    const size_t filler = veltrano::chain::kMaxChainFileBytes - 12;
    FillerThenTail source(filler, "\n[A]\nend\n[B]\nend\n");
    std::istream in(&source);
    const veltrano::chain::ChainFile file = veltrano::chain::ReadChainFile(in);
    ASSERT_EQ(file.blocks.size(), 1u);
    ASSERT_EQ(file.blocks[0].size(), 2u);
    EXPECT_EQ(file.blocks[0][0].size(), filler);
    EXPECT_EQ(file.blocks[0][0].find_first_not_of('x'), std::string::npos);
    EXPECT_EQ(file.blocks[0][1], "[A]");
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
