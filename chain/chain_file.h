// Reading a chain file: its lines, their split into blocks, and the fields of a line.
//
// A block is every line up to a line that begins with "end"; that line closes the block and
// belongs to none. Lines after the last closing line are dropped. The first line of a block
// names the step between "[" and "]"; every further line carries one value between "=" and
// ";". Numbers are converted with std::stoi / std::stof, whose failures are left to the caller.
//
// Kept inline in this header so that the tests can check the file rules on their own, without
// running any processing step.
#pragma once

#include <algorithm>
#include <cstddef>
#include <istream>
#include <string>
#include <utility>
#include <vector>

namespace veltrano::chain {

using Block = std::vector<std::string>;

struct ChainFile {
    std::string text;           // every line read, concatenated without separators
    std::vector<Block> blocks;  // complete blocks in file order
};

// True when the line closes a block: it begins with "end" ("ending=1;" does, "x=1;end" not).
inline bool ClosesBlock(const std::string& line) { return line.compare(0, 3, "end") == 0; }

// The most of a chain file that is read; the rest is ignored as if the file ended there.
constexpr size_t kMaxChainFileBytes = size_t(16) << 20;

// Reads the lines of the stream (up to kMaxChainFileBytes) and splits them into blocks. Lines
// end at a line feed; text after the last one is a line of its own, as std::getline reads it.
inline ChainFile ReadChainFile(std::istream& in) {
    std::string all;
    char chunk[1 << 14];
    while (all.size() < kMaxChainFileBytes && in) {
        const size_t wanted = std::min(sizeof chunk, kMaxChainFileBytes - all.size());
        in.read(chunk, static_cast<std::streamsize>(wanted));
        all.append(chunk, static_cast<size_t>(in.gcount()));
    }

    ChainFile file;
    Block current;
    std::string line;
    for (size_t start = 0; start < all.size();) {
        size_t end = all.find('\n', start);
        if (end == std::string::npos) end = all.size();
        line.assign(all, start, end - start);
        start = end + 1;
        // A file written on Windows keeps its carriage returns when read elsewhere; drop them so
        // that the same chain file gives the same text and fields on every system.
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        file.text += line;
        if (ClosesBlock(line)) {
            // Two closing lines in a row make an empty block. It counts as a block (the file
            // does hold one) and, having no name, stops the chain when it is reached.
            file.blocks.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(line);
        }
    }
    return file;
}

// The text after the first `open` character (or from the line start when there is none) up to
// the first `close` character after that; empty when there is no such close character.
inline std::string Field(const std::string& line, char open, char close) {
    const size_t openAt = line.find(open);
    const size_t start = openAt == std::string::npos ? 0 : openAt + 1;
    const size_t end = line.find(close, start);
    if (end == std::string::npos || end <= start) {
        return std::string();
    }
    return line.substr(start, end - start);
}

// The step name of a block's first line; empty for an empty block.
inline std::string StepName(const Block& block) {
    return block.empty() ? std::string() : Field(block.front(), '[', ']');
}

// Parameter line `index` of a block (1 for the line after the header) as an int or a float.
// Throws std::invalid_argument / std::out_of_range for a malformed or overflowing value.
inline int IntParam(const Block& block, size_t index) {
    return std::stoi(Field(block.at(index), '=', ';'));
}

inline float FloatParam(const Block& block, size_t index) {
    return std::stof(Field(block.at(index), '=', ';'));
}

}  // namespace veltrano::chain
