// A place of the floor at which devices can be plugged in, on one of the two roads.
#pragma once

#include <QString>
#include <QStringList>
#include <memory>

#include "simulator/flash.h"

namespace simulator {

// kReal: bytes and flash take as long as on a bench. kFast: as short as the program lets them.
enum class Pace { kReal, kFast };

// All on the user-interface thread.
class Socket {
  public:
    virtual ~Socket() = default;

    // As it stands on the floor.
    virtual QString name() const = 0;
    // What can be wrong with a device, in the operator's language; the first is nothing.
    virtual QStringList troubles() const = 0;

    // A new device with that trouble gets power here. What was here is taken out first.
    virtual void plug(int trouble, Pace pace) = 0;
    // Takes the device out, if there is one.
    virtual void unplug() = 0;
    // Devices with some troubles leave by themselves.
    virtual bool isPlugged() const = 0;

    // Of the last device that was here; null before there was one.
    virtual std::shared_ptr<const Flash> flash() const = 0;
};

}  // namespace simulator
