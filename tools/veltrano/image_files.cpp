#include "image_files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/file_kind.h"
#include "platform/new_file.h"
#include "png_io.h"
#include "veltrano/imgmat.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

uint16_t ToSample(double value) {
    if (!(value > 0.0)) {
        return 0;  // negatives and NaN
    }
    if (value >= 65535.0) {
        return 65535;
    }
    return static_cast<uint16_t>(value + 0.5);
}

using veltrano::platform::FileKind;

std::string FolderOf(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? std::string(".") : folder.string();
}

// "could not be written completely (No space left on device)".
std::string IncompleteWrite(int errorNumber) {
    return std::string("could not be written completely") +
           (errorNumber != 0 ? std::string(" (") + std::strerror(errorNumber) + ")" : "");
}

// "is a FIFO, not a regular file" and the like.
std::string NotRegular(FileKind kind) {
    return std::string("is ") + veltrano::platform::FileKindName(kind) + ", not a regular file";
}

}  // namespace

unsigned RawElementSize(int type) {
    switch (type) {
    case 0:
    case 1:
        return 1;
    case 2:
    case 3:
        return 2;
    case 4:
    case 5:
    case 8:
        return 4;
    case 6:
    case 7:
    case 9:
        return 8;
    default:
        return 0;
    }
}

bool IsPngPath(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".png";
}

bool ReadPngImage(const std::string& path, Image16& image, std::string& error) {
    if (!CheckInputFile(path, error)) {
        return false;
    }
    return ReadPng16(path, image.width, image.height, image.pixels, error);
}

bool ReadRawImage(const std::string& path, const RawLayout& layout, Image16& image,
                  std::string& error) {
    const unsigned elementSize = RawElementSize(layout.type);
    if (elementSize == 0 || layout.width == 0 || layout.height == 0 || layout.width > 100000 ||
        layout.height > 100000) {
        error = "raw layout out of range";
        return false;
    }
    if (layout.width * layout.height > kMaxPngPixels) {
        error = "raw layout of " + std::to_string(layout.width) + " x " +
                std::to_string(layout.height) + " pixels is more than the " +
                std::to_string(kMaxPngPixels) + " this program reads";
        return false;
    }
    if (!CheckInputFile(path, error)) {
        return false;
    }
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    if (ec) {
        error = "cannot be read";
        return false;
    }
    // The image matrix does not notice a short file (its tail would be undefined), so the
    // length is checked here first.
    const uint64_t needed = layout.headerBytes + layout.width * layout.height * elementSize;
    if (size < needed) {
        error = "is shorter than its size says (" + std::to_string(size) + " bytes, " +
                std::to_string(needed) + " needed)";
        return false;
    }
    std::ifstream probe(path, std::ios::binary);
    if (!probe) {
        error = "cannot be opened";
        return false;
    }
    probe.close();
    imgmat matrix;
    if (matrix.readRawFile(path.c_str(), layout.width, layout.height, layout.headerBytes,
                           layout.type) != 1 ||
        matrix.data == nullptr) {
        error = "cannot be read";
        return false;
    }
    image = ToImage16(matrix);
    return true;
}

Image16 ToImage16(const imgmat& matrix) {
    Image16 image;
    if (matrix.data == nullptr) {
        return image;
    }
    image.width = static_cast<uint32_t>(matrix.width);
    image.height = static_cast<uint32_t>(matrix.height);
    const size_t count = static_cast<size_t>(matrix.width) * static_cast<size_t>(matrix.height);
    image.pixels.resize(count);
    for (size_t i = 0; i < count; ++i) {
        image.pixels[i] = ToSample(matrix.data[i]);
    }
    return image;
}

bool CheckInputFile(const std::string& path, std::string& error) {
    const FileKind kind = veltrano::platform::FileKindOf(path);
    if (kind == FileKind::Regular) {
        return true;
    }
    error = kind == FileKind::Missing || kind == FileKind::Other ? "cannot be opened"
                                                                 : NotRegular(kind);
    return false;
}

bool CheckWritableFile(const std::string& path, std::string& error) {
    const FileKind kind = veltrano::platform::FileKindOf(path);
    if (kind == FileKind::Regular || kind == FileKind::Missing) {
        return true;
    }
    error = NotRegular(kind);
    return false;
}

PendingOutput::~PendingOutput() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
    if (!committed_ && !temporary_.empty()) {
        std::error_code ignored;
        fs::remove(temporary_, ignored);
    }
}

bool PendingOutput::Open(const std::string& target, std::string& error) {
    using veltrano::platform::FileKindOf;
    using veltrano::platform::LinkKindOf;
    const FileKind entry = LinkKindOf(target);
    if (entry == FileKind::Regular || entry == FileKind::Missing) {
        final_ = target;
    } else if (entry == FileKind::SymbolicLink) {
        const FileKind pointee = FileKindOf(target);
        if (pointee != FileKind::Regular) {
            error = std::string("is a symbolic link to ") +
                    veltrano::platform::FileKindName(pointee) + ", not to a regular file";
            return false;
        }
        final_ = veltrano::platform::FinalTarget(target);
        if (final_.empty()) {
            error = "is a symbolic link that cannot be followed";
            return false;
        }
    } else {
        error = NotRegular(entry);
        return false;
    }
    const std::string folder = FolderOf(final_);
    const FileKind folderKind = FileKindOf(folder);
    if (folderKind != FileKind::Directory) {
        error = folderKind == FileKind::Missing
                    ? "cannot be written: the folder " + folder + " does not exist"
                    : "cannot be written: " + folder + " is not a folder";
        return false;
    }
    // FILE.part, or FILE.1.part and so on when a file of that name is left from an earlier run:
    // an existing name is never opened, so the temporary file cannot land anywhere else.
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporary_ =
            attempt == 0 ? final_ + ".part" : final_ + "." + std::to_string(attempt) + ".part";
        veltrano::platform::NewFileError reason;
        file_ = veltrano::platform::CreateNewFile(temporary_, reason);
        if (file_ != nullptr) {
            return true;
        }
        if (reason != veltrano::platform::NewFileError::Exists) {
            temporary_.clear();
            error =
                std::string("cannot be written: ") + veltrano::platform::NewFileErrorText(reason);
            return false;
        }
    }
    temporary_.clear();
    error = "cannot be written: too many temporary files named " + final_ + ".*.part";
    return false;
}

bool PendingOutput::CloseFile(std::string& error) {
    if (file_ == nullptr) {
        return true;
    }
    errno = 0;
    const bool flushed = std::fflush(file_) == 0 && !std::ferror(file_);
    const int flushError = errno;
    const bool closed = std::fclose(file_) == 0;
    const int closeError = errno;
    file_ = nullptr;
    if (!flushed || !closed) {
        error = IncompleteWrite(flushError != 0 ? flushError : closeError);
        return false;
    }
    return true;
}

bool PendingOutput::Commit(std::string& error) {
    if (temporary_.empty() || !CloseFile(error)) {
        if (temporary_.empty()) {
            error = "was not opened for writing";
        }
        return false;
    }
    std::error_code ec;
    fs::rename(temporary_, final_, ec);
    if (ec) {
        error = "cannot be replaced (" + ec.message() + ")";
        return false;
    }
    committed_ = true;
    return true;
}

bool WriteImage(PendingOutput& output, const std::string& target, const Image16& image,
                std::string& error) {
    if (IsPngPath(target)) {
        if (!WritePng16(output.File(), image.width, image.height, image.pixels, error)) {
            return false;
        }
        return output.Commit(error);
    }
    // The image matrix writes by name: the file made for us is closed and opened again.
    if (!output.CloseFile(error)) {
        return false;
    }
    std::vector<float> samples(image.pixels.begin(), image.pixels.end());
    imgmat writer;
    if (writer.writeRawFile(output.TemporaryPath().c_str(), samples.data(), samples.size()) != 1) {
        error = "cannot be written";
        return false;
    }
    std::error_code ec;
    if (fs::file_size(output.TemporaryPath(), ec) != samples.size() * sizeof(float) || ec) {
        // The image matrix does not report a failed write; a short file tells it, and a full
        // disk is what makes a file short here.
        error = IncompleteWrite(ENOSPC);
        return false;
    }
    return output.Commit(error);
}

bool WritePreview(PendingOutput& output, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error) {
    if (!WritePng8(output.File(), width, height, pixels, error)) {
        return false;
    }
    return output.Commit(error);
}

bool WriteImage(const std::string& path, const Image16& image, std::string& error) {
    PendingOutput output;
    return output.Open(path, error) && WriteImage(output, path, image, error);
}

bool WritePreview(const std::string& path, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error) {
    PendingOutput output;
    return output.Open(path, error) && WritePreview(output, width, height, pixels, error);
}

}  // namespace vcli
