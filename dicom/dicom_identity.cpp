#include "dicom_identity.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <random>

#include "dicom.h"

namespace vdicom {
namespace {

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return "";
    }
    const size_t last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}

// The number of characters of well-formed UTF-8 text, or -1 when it is not well formed
// (overlong forms, surrogates and values past U+10FFFF included).
long Utf8Length(const std::string& text) {
    long count = 0;
    for (size_t i = 0; i < text.size(); ++count) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        size_t extra = 0;
        uint32_t value = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            value = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            value = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            value = c & 0x07;
        } else {
            return -1;
        }
        if (i + extra >= text.size()) {
            return -1;
        }
        for (size_t k = 1; k <= extra; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return -1;
            }
            value = (value << 6) | (next & 0x3F);
        }
        if ((extra == 2 && (value < 0x800 || (value >= 0xD800 && value <= 0xDFFF))) ||
            (extra == 3 && (value < 0x10000 || value > 0x10FFFF))) {
            return -1;
        }
        i += extra + 1;
    }
    return count;
}

// Checks text for a DICOM string of at most maxChars characters in which `forbidden` may not
// appear (the backslash always separates values). Sets error after the option's name.
bool CheckText(const std::string& option, const std::string& value, long maxChars,
               const std::string& forbidden, std::string& error) {
    const long length = Utf8Length(value);
    if (length < 0) {
        error = option + ": is not valid UTF-8 text";
        return false;
    }
    for (const char c : value) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) {
            error = option + ": control characters (tabs, line breaks) are not allowed";
            return false;
        }
        if (c == '\\' || forbidden.find(c) != std::string::npos) {
            error = option + ": the character '" + std::string(1, c) + "' is not allowed";
            return false;
        }
    }
    if (length > maxChars) {
        error = option + ": is " + std::to_string(length) + " characters long, at most " +
                std::to_string(maxChars) + " are allowed";
        return false;
    }
    return true;
}

bool AllDigits(const std::string& text) {
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return !text.empty();
}

int DaysInMonth(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

std::string Today() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &now);
#else
    localtime_r(&now, &local);
#endif
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday);
    return text;
}

bool CheckBirthDate(std::string& date, std::string& error) {
    std::string digits = date;
    if (digits.size() == 10 && digits[4] == '-' && digits[7] == '-') {
        digits = digits.substr(0, 4) + digits.substr(5, 2) + digits.substr(8, 2);
    }
    if (digits.size() != 8 || !AllDigits(digits)) {
        error = "--birth-date: '" + date + "' is not a date of the form YYYYMMDD or YYYY-MM-DD";
        return false;
    }
    const int year = std::stoi(digits.substr(0, 4));
    const int month = std::stoi(digits.substr(4, 2));
    const int day = std::stoi(digits.substr(6, 2));
    if (year < 1850 || month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) {
        error = "--birth-date: '" + date + "' is not a valid date";
        return false;
    }
    if (digits > Today()) {
        error = "--birth-date: '" + date + "' lies in the future";
        return false;
    }
    date = digits;
    return true;
}

bool CheckSex(std::string& sex, std::string& error) {
    std::string lower;
    for (const char c : sex) {
        lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    if (lower == "m" || lower == "male") {
        sex = "M";
    } else if (lower == "f" || lower == "female") {
        sex = "F";
    } else if (lower == "o" || lower == "other") {
        sex = "O";
    } else {
        error = "--sex: '" + sex + "' is not one of M, F or O";
        return false;
    }
    return true;
}

bool ValidTooth(const std::string& tooth) {
    if (tooth.size() != 2 || !AllDigits(tooth)) {
        return false;
    }
    const int quadrant = tooth[0] - '0';
    const int position = tooth[1] - '0';
    if (quadrant >= 1 && quadrant <= 4) {
        return position >= 1 && position <= 8;
    }
    if (quadrant >= 5 && quadrant <= 8) {
        return position >= 1 && position <= 5;
    }
    return false;
}

bool CheckName(const std::string& name, std::string& error) {
    // '=' separates the alphabetic, ideographic and phonetic forms of a name and '^' its
    // components; one alphabetic form of up to five components is what a practice enters.
    if (!CheckText("--patient-name", name, 64, "=", error)) {
        return false;
    }
    size_t carets = 0;
    for (const char c : name) {
        carets += c == '^' ? 1 : 0;
    }
    if (carets > 4) {
        error = "--patient-name: has more than five components separated by '^'";
        return false;
    }
    return true;
}

}  // namespace

bool ValidateIdentity(DicomIdentity& id, std::string& error) {
    for (std::string* field : {&id.patientName, &id.patientId, &id.birthDate, &id.sex,
                               &id.studyDescription, &id.tooth, &id.accession}) {
        *field = Trim(*field);
    }
    if (!id.patientName.empty() && !CheckName(id.patientName, error)) {
        return false;
    }
    if (!id.patientId.empty() && !CheckText("--patient-id", id.patientId, 64, "", error)) {
        return false;
    }
    if (!id.birthDate.empty() && !CheckBirthDate(id.birthDate, error)) {
        return false;
    }
    if (!id.sex.empty() && !CheckSex(id.sex, error)) {
        return false;
    }
    if (!id.studyDescription.empty() &&
        !CheckText("--study-description", id.studyDescription, 64, "", error)) {
        return false;
    }
    if (!id.tooth.empty() && !ValidTooth(id.tooth)) {
        error = "--tooth: '" + id.tooth +
                "' is not a tooth in FDI numbering (11-18, 21-28, "
                "31-38, 41-48 permanent; 51-55, 61-65, 71-75, 81-85 primary)";
        return false;
    }
    if (!id.accession.empty() && !CheckText("--accession", id.accession, 16, "", error)) {
        return false;
    }
    return true;
}

bool NeedsUtf8(const DicomIdentity& id) {
    for (const std::string* field : {&id.patientName, &id.patientId, &id.studyDescription,
                                     &id.accession, &id.studyId, &id.referringPhysician}) {
        for (const char c : *field) {
            if (static_cast<unsigned char>(c) >= 0x80) {
                return true;
            }
        }
    }
    return false;
}

char ToothSide(const std::string& tooth) {
    if (!ValidTooth(tooth)) {
        return 0;
    }
    switch (tooth[0]) {
    case '1':
    case '4':
    case '5':
    case '8':
        return 'R';
    default:
        return 'L';
    }
}

bool ToothInUpperJaw(const std::string& tooth) {
    return ValidTooth(tooth) &&
           (tooth[0] == '1' || tooth[0] == '2' || tooth[0] == '5' || tooth[0] == '6');
}

std::string Decimal128(unsigned long long high, unsigned long long low) {
    // Four 32-bit limbs, most significant first, divided by ten until nothing is left.
    uint32_t limbs[4] = {static_cast<uint32_t>(high >> 32), static_cast<uint32_t>(high),
                         static_cast<uint32_t>(low >> 32), static_cast<uint32_t>(low)};
    std::string digits;
    for (;;) {
        uint64_t remainder = 0;
        bool zero = true;
        for (uint32_t& limb : limbs) {
            const uint64_t current = (remainder << 32) | limb;
            limb = static_cast<uint32_t>(current / 10);
            remainder = current % 10;
            zero = zero && limb == 0;
        }
        digits.insert(digits.begin(), static_cast<char>('0' + remainder));
        if (zero) {
            return digits;
        }
    }
}

std::string NewUid() {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    static std::random_device device;
    static std::mt19937_64 engine = [] {
        std::seed_seq seed{device(),
                           device(),
                           device(),
                           device(),
                           device(),
                           device(),
                           static_cast<unsigned>(std::time(nullptr))};
        return std::mt19937_64(seed);
    }();
    unsigned long long high = engine();
    unsigned long long low = engine();
    // Version 4 (random) and the variant of RFC 4122, as a UUID of this form carries them.
    high = (high & ~0xF000ULL) | 0x4000ULL;
    low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;
    return "2.25." + Decimal128(high, low);
}

// These two need no DCMTK either: the program answers with them before it loads the library.
const char kNoDicomSupport[] = "DICOM support is not built into this program (DCMTK was not found)";

bool IsDicomPath(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".dcm";
}

}  // namespace vdicom
