// The DICOM file functions of the veltrano program in a build with DCMTK: the shared DICOM
// library is loaded the first time they are needed (see dicom_entry.h) and kept until the
// process ends. The identity checks and IsDicomPath are compiled into the program itself.
#include <mutex>

#include "dicom_entry.h"
#include "platform/dynamic_library.h"

namespace vdicom {
namespace {

// Never closed, and so never destroyed: unloading DCMTK at exit would only spend time tearing
// down its globals.
veltrano::platform::DynamicLibrary* g_library = nullptr;
const DicomFileFunctions* g_functions = nullptr;
std::string g_loadError;

void Load() {
    g_library = new veltrano::platform::DynamicLibrary;
    const std::string fileName = VELTRANO_DICOM_LIBRARY_FILE;
    if (!g_library->openFile(fileName)) {
        g_loadError = "the DICOM library cannot be loaded (" + g_library->error() + ")";
        return;
    }
    using Entry = decltype(&veltrano_dicom_file_functions);
    const auto entry = reinterpret_cast<Entry>(g_library->symbol(kDicomEntryName));
    g_functions = entry != nullptr ? entry(DicomLayout()) : nullptr;
    if (g_functions == nullptr) {
        g_loadError = "the DICOM library " + fileName + " does not belong to this program";
        g_library->close();
    }
}

}  // namespace

bool LoadDicomLibrary(std::string& error) {
    static std::once_flag once;
    std::call_once(once, Load);
    if (g_functions == nullptr) {
        error = g_loadError;
        return false;
    }
    return true;
}

bool DicomSupported() { return true; }

bool WriteDicom(const std::string& path, const DicomImage& image, DicomImageKind kind,
                const DicomIdentity& identity, const DicomDetector& detector, std::string& error,
                DicomPhotometric photometric) {
    return LoadDicomLibrary(error) &&
           g_functions->write(path, image, kind, identity, detector, error, photometric);
}

bool ReadDicom(const std::string& path, DicomImage& image, DicomSource& source,
               std::string& error) {
    return LoadDicomLibrary(error) && g_functions->read(path, image, source, error);
}

}  // namespace vdicom
