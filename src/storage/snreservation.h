// A serial number that was drawn for one device. Whoever holds the reservation decides what becomes
// of the number: it is burned, or it goes back to the pool, at the latest with its last holder.
#pragma once

#include <string>
#include <vector>

#include "storage/serialnumfile.h"

// Belongs to one thread at a time. The file outlives it.
class SnReservation {
  public:
    // Holds no number.
    SnReservation() = default;
    // Draws the file's next free number; holds none if all are used up.
    explicit SnReservation(SerialNumFile& file);
    SnReservation(SnReservation&& other) noexcept;
    // Gives back what it held before.
    SnReservation& operator=(SnReservation&& other) noexcept;
    ~SnReservation() { giveBack(); }

    // Whether a number is held that is neither burned nor given back.
    explicit operator bool() const { return record_ != nullptr; }

    // The number, any bytes; some rows of a list have an empty one. Only while one is held.
    const std::string& sn() const { return record_->sn; }

    // Records that the number is in a device, as SerialNumFile::markBurned does, and holds it no
    // more. Does nothing if none is held. Waits for the disk.
    std::vector<SerialNumFile::Unmarked> markBurned();

    // The next device may draw the number; none is held then.
    void giveBack();

  private:
    SerialNumFile* file_ = nullptr;
    SerialNumFile::SnRecord* record_ = nullptr;
};
