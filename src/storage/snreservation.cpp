#include "storage/snreservation.h"

#include <utility>

SnReservation::SnReservation(SerialNumFile& file) : file_(&file), record_(file.takeNext()) {}

SnReservation::SnReservation(SnReservation&& other) noexcept
    : file_(other.file_), record_(std::exchange(other.record_, nullptr)) {}

SnReservation& SnReservation::operator=(SnReservation&& other) noexcept {
    if (this != &other) {
        giveBack();
        file_ = other.file_;
        record_ = std::exchange(other.record_, nullptr);
    }
    return *this;
}

std::vector<SerialNumFile::Unmarked> SnReservation::markBurned() {
    if (record_ == nullptr)
        return {};
    return file_->markBurned(std::exchange(record_, nullptr));
}

void SnReservation::giveBack() {
    if (record_ != nullptr)
        file_->releaseRecord(std::exchange(record_, nullptr));
}
