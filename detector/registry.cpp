// The process-wide list of detector objects, through which the driver's callback finds the
// object an event belongs to, and the lookups that go through it.
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "veltrano/detector.h"

namespace veltrano::detail {

DetectorList& Detectors() {
    // Never destroyed: detector objects with static storage may outlive any other static.
    static DetectorList* list = new DetectorList;
    return *list;
}

void AddDetector(CVeltrano* detector) {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    Detectors().members.push_back(detector);
}

void RemoveDetector(const CVeltrano* detector) {
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    std::vector<CVeltrano*>& members = Detectors().members;
    // The count is taken once and the index advances after an erase too, so of two adjacent
    // entries of this object the second one stays in the list. It stays as an empty entry:
    // the callback skips empty entries and must never meet a destroyed object.
    const size_t count = members.size();
    for (size_t i = 0; i < count && i < members.size(); ++i) {
        if (members[i] == detector) {
            members.erase(members.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    for (CVeltrano*& member : members) {
        if (member == detector) {
            member = nullptr;
        }
    }
}

}  // namespace veltrano::detail

void CVeltrano::RegisterMember() { veltrano::detail::AddDetector(this); }

CVeltrano* CVeltrano::FindByInstanceLocked(int id) {
    if (id == 0) {
        return nullptr;  // 0 is "no instance", which every torn-down binding has
    }
    for (CVeltrano* member : veltrano::detail::Detectors().members) {
        if (member != nullptr && member->m_pDetInstance != nullptr &&
            member->m_pDetInstance->Instance() == id) {
            return member;
        }
    }
    return nullptr;
}

CVeltrano* CVeltrano::JudgePtrByID(int id) {
    std::lock_guard<std::mutex> lock(veltrano::detail::Detectors().mutex);
    return FindByInstanceLocked(id);
}

std::shared_ptr<veltrano::detail::DriverBinding> CVeltrano::CurrentBinding() const {
    std::lock_guard<std::mutex> lock(veltrano::detail::Detectors().mutex);
    return m_pDetInstance;
}
