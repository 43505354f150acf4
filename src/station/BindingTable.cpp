#include "station/BindingTable.h"

#include <stdexcept>

namespace quorvel::app {

std::size_t BindingTable::Index(int slot) {
    if (slot < 0 || slot >= kSlotCount) throw std::out_of_range("slot index out of range");
    return static_cast<std::size_t>(slot);
}

std::string BindingTable::HsLocation(int slot) const {
    std::lock_guard g(mutex_);
    return hs_[Index(slot)];
}
std::string BindingTable::LsLocation(int slot) const {
    std::lock_guard g(mutex_);
    return ls_[Index(slot)];
}
std::string BindingTable::ComName(int slot) const {
    std::lock_guard g(mutex_);
    return com_[Index(slot)];
}
void BindingTable::SetHsLocation(int slot, std::string text) {
    std::lock_guard g(mutex_);
    hs_[Index(slot)] = std::move(text);
}
void BindingTable::SetLsLocation(int slot, std::string text) {
    std::lock_guard g(mutex_);
    ls_[Index(slot)] = std::move(text);
}
void BindingTable::SetComName(int slot, std::string text) {
    std::lock_guard g(mutex_);
    com_[Index(slot)] = std::move(text);
}

BindingTable::Entry BindingTable::Get(int slot) const {
    std::lock_guard g(mutex_);
    auto i = Index(slot);
    return {hs_[i], ls_[i], com_[i], state_[i].load()};
}

}  // namespace quorvel::app
