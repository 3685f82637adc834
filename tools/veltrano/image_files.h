// Image files of the command-line program: 16-bit grayscale PNG, headerless raw files read
// through the library's image matrix, and the conversion of acquired float images to 16 bits.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class imgmat;

namespace vcli {

struct Image16 {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> pixels;  // row-major, width x height
};

// How to read a headerless raw file: its size, element code of the image matrix (0..9) and
// the number of header bytes before the samples.
struct RawLayout {
    uint64_t width = 0;
    uint64_t height = 0;
    int type = 3;
    uint64_t headerBytes = 0;
};

// Bytes per sample of a raw element code, 0 for a code the image matrix does not convert.
unsigned RawElementSize(int type);

// True for a path whose extension is ".png" (any case).
bool IsPngPath(const std::string& path);

// Each reader returns false with a short description of the problem (the caller names the
// file). Raw samples outside 0..65535 are clamped and rounded to the nearest integer.
bool ReadPngImage(const std::string& path, Image16& image, std::string& error);
bool ReadRawImage(const std::string& path, const RawLayout& layout, Image16& image,
                  std::string& error);

// A matrix from the detector (32-bit floats holding 16-bit values) as 16-bit pixels.
Image16 ToImage16(const imgmat& matrix);

// An output file in the making. Open checks the target and creates a temporary file beside the
// file that will be replaced, before any work is spent; Commit moves the finished temporary file
// over it. An object destroyed without a successful Commit removes its temporary file, so a
// failed run leaves nothing behind and the target as it was.
//
// The target may be missing (its folder must exist and take a new file) or a regular file. A
// symbolic link to a regular file stays a link: the file it points to receives the new content,
// as a shell's "> FILE" would give it. Anything else at the target (a folder, a FIFO, a device,
// a socket, a link to one of these or to nothing) is refused and left alone.
class PendingOutput {
public:
    PendingOutput() = default;
    ~PendingOutput();
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    // False with a description of the problem (the caller names the target).
    bool Open(const std::string& target, std::string& error);
    // The temporary file, open for binary writing (null before Open or after CloseFile).
    std::FILE* File() const { return file_; }
    const std::string& TemporaryPath() const { return temporary_; }
    // Closes the temporary file; false when the rest of its data could not be written.
    bool CloseFile(std::string& error);
    // Closes the temporary file if still open and moves it over the target.
    bool Commit(std::string& error);

private:
    std::string final_;      // the file that is replaced (a link's target, resolved)
    std::string temporary_;  // beside it
    std::FILE* file_ = nullptr;
    bool committed_ = false;
};

// Refuses, with a description, a path that exists and is not a regular file (or a link to one):
// opening a FIFO would block, and a device or folder is no place for a log or settings file.
bool CheckWritableFile(const std::string& path, std::string& error);

// True when path names a regular file (or a link to one); otherwise false with a description:
// "cannot be opened" when nothing is there, "is a FIFO, not a regular file" and the like.
bool CheckInputFile(const std::string& path, std::string& error);

// Writes the image into an opened output: a 16-bit PNG for a ".png" target, otherwise a raw
// file of 32-bit floats (element code 8, no header) through the image matrix. Then commits it.
bool WriteImage(PendingOutput& output, const std::string& target, const Image16& image,
                std::string& error);
bool WritePreview(PendingOutput& output, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error);
// Open, then the write above.
bool WriteImage(const std::string& path, const Image16& image, std::string& error);
bool WritePreview(const std::string& path, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error);

}  // namespace vcli
