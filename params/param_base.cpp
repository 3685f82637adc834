// paramBase: key bindings of a record's fields and their loading and saving through the INI
// functions.

#include <cstring>
#include <new>

#include "params/param_registry.h"
#include "veltrano/ini.h"
#include "veltrano/params.h"

using veltrano::ParamRegistry;

namespace {

template <class T>
T* FieldAt(const ParamRegistry& registry, std::ptrdiff_t offset) {
    return reinterpret_cast<T*>(registry.owner + offset);
}

bool SameBinding(const ParamRegistry::Binding& b, std::ptrdiff_t offset, const char* key) {
    return b.first == offset && std::strcmp(b.second, key) == 0;
}

enum class Direction { Read, Write };

// The current value is the default of a read, so a missing key leaves the field as it is.
void TransferValue(Direction d, const char* section, const char* key, const char* file, int& v) {
    if (d == Direction::Read) {
        v = ReadInt_INI(section, key, file, v);
    } else {
        WriteInt_INI(section, key, v, file);
    }
}

void TransferValue(Direction d, const char* section, const char* key, const char* file, float& v) {
    if (d == Direction::Read) {
        v = ReadFloat_INI(section, key, file, v);
    } else {
        WriteFloat_INI(section, key, v, file);
    }
}

// Reads or writes every int binding and then every float binding, each container in its own
// order (field order for the maps, order of binding for the lists). Nothing happens once the
// record that made the bindings is gone.
template <class IntBindings, class FloatBindings>
void Transfer(Direction d, const ParamRegistry& r, const IntBindings& ints,
              const FloatBindings& floats, const char* section, const char* file) {
    if (r.owner == nullptr) return;
    for (const auto& [offset, key] : ints)
        TransferValue(d, section, key, file, *FieldAt<int>(r, offset));
    for (const auto& [offset, key] : floats)
        TransferValue(d, section, key, file, *FieldAt<float>(r, offset));
}

void AppendOnce(std::vector<ParamRegistry::Binding>& list, std::ptrdiff_t offset, const char* key) {
    for (const auto& b : list) {
        if (SameBinding(b, offset, key)) return;
    }
    list.emplace_back(offset, key);
}

}  // namespace

paramBase::paramBase() : registry_(std::make_shared<ParamRegistry>()) {
    registry_->owner = reinterpret_cast<char*>(this);
    ownRegistry_ = registry_;
}

paramBase::paramBase(const paramBase& other)
    : registry_(other.registry_), pathStorage_(other.pathStorage_) {}

paramBase& paramBase::operator=(const paramBase& other) {
    // The path field belongs to the derived record, which copies it itself; only the bindings
    // are taken over here.
    if (this != &other) registry_ = other.registry_;
    return *this;
}

paramBase::~paramBase() {
    if (auto own = ownRegistry_.lock()) own->owner = nullptr;
}

void paramBase::clearDataToBeSaved() {
    registry_->intKeys.clear();
    registry_->floatKeys.clear();
    registry_->intList.clear();
    registry_->floatList.clear();
    registry_->doubleList.clear();
    registry_->stringList.clear();
}

int paramBase::CopyFilePath(char*& target, const char* source) {
    if (source == nullptr) return -1;
    if (target == source) return 1;
    const size_t size = std::strlen(source) + 1;
    // Copies share the path text, so the old text is released only with its last user.
    std::shared_ptr<char> copy(new (std::nothrow) char[size], std::default_delete<char[]>());
    if (!copy) return 0;
    std::memcpy(copy.get(), source, size);
    pathStorage_ = std::move(copy);
    target = pathStorage_.get();
    return 1;
}

// Offsets are taken from this record; in a copy they name the same fields of the creator.
void paramBase::bindInt(int* field, const char* key) {
    registry_->intKeys[reinterpret_cast<char*>(field) - reinterpret_cast<char*>(this)] = key;
}

void paramBase::bindFloat(float* field, const char* key) {
    registry_->floatKeys[reinterpret_cast<char*>(field) - reinterpret_cast<char*>(this)] = key;
}

void paramBase::appendInt(int* field, const char* key) {
    AppendOnce(registry_->intList, reinterpret_cast<char*>(field) - reinterpret_cast<char*>(this),
               key);
}

void paramBase::appendFloat(float* field, const char* key) {
    AppendOnce(registry_->floatList, reinterpret_cast<char*>(field) - reinterpret_cast<char*>(this),
               key);
}

void paramBase::getData(const char* section, const char* file) {
    Transfer(Direction::Read, *registry_, registry_->intKeys, registry_->floatKeys, section, file);
}

void paramBase::saveData(const char* section, const char* file) {
    Transfer(Direction::Write, *registry_, registry_->intKeys, registry_->floatKeys, section, file);
}

void paramBase::getData_byVec(const char* section, const char* file) {
    Transfer(Direction::Read, *registry_, registry_->intList, registry_->floatList, section, file);
}

void paramBase::saveData_byVec(const char* section, const char* file) {
    Transfer(Direction::Write, *registry_, registry_->intList, registry_->floatList, section, file);
}
