// A road by which devices reach the program: sixteen sockets, and the page that watches over them.
#pragma once

#include <QString>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dice.h"
#include "simulator/flash.h"

namespace campaign {

class Road {
  public:
    static constexpr std::size_t kSockets = 16;

    virtual ~Road() = default;

    // On its tab, and on the main page's button.
    virtual QString page() const = 0;
    // Where its page unpacks packages.
    virtual std::string unpackDirectory() const = 0;
    // What tiles and run log call a device in the socket.
    virtual std::string place(std::size_t socket) const = 0;

    // A new device, erased and without power, takes the place of the socket's last one. A troubled
    // one will show some of the faults that its kind can show.
    virtual void makeDevice(std::size_t socket, Dice& dice, bool troubled) = 0;
    // Gives the socket's device power. Must not be plugged in.
    virtual void plug(std::size_t socket) = 0;
    virtual void unplug(std::size_t socket) = 0;
    // False as well for one that has left by itself.
    virtual bool isPlugged(std::size_t socket) const = 0;

    // Of the socket's device, which lives as long as this pointer or longer.
    virtual std::shared_ptr<const simulator::Flash> flash(std::size_t socket) const = 0;
    // What the program did wrong on the wire of the socket's device.
    virtual std::vector<std::string> breaches(std::size_t socket) const = 0;
    // What it did wrong beside that, once no run goes on.
    virtual std::vector<std::string> breaches() const { return {}; }
};

}  // namespace campaign
