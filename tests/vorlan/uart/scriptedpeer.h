// The device at the far end of a port, for tests of one step at a time. It sits on a real pty, sees
// the rate that the program has set, and answers each request as scripted. It works within the
// program's own write, so nothing depends on timing, and only the wait for an answer that will not
// come is cut short.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/serialdevice.h"
#include "support/pseudoterminal.h"
#include "vorlan/uart/uart_protocol.h"

// A request as it stood on the wire, and the port's state at that moment.
struct SeenRequest {
    int command = 0;
    std::string frame;   // with its delimiters
    std::string packet;  // header and data
    std::uint32_t rate = 0;
    std::chrono::milliseconds silentRead{0};  // how long the read behind it may last

    std::string data() const { return packet.substr(8); }
    // A word of the data.
    std::uint32_t word(std::size_t index) const;
};

class ScriptedPeer {
  public:
    // Opens the context's port.
    explicit ScriptedPeer(UartContext& context);

    // The next `count` requests of that command get `answer`; afterwards they are acknowledged
    // again. An empty answer is silence.
    void answer(UartCommand command, const std::string& answer, int count = 1);
    // The same with a frame that says no.
    void refuse(UartCommand command, int count) { answer(command, refusal(command), count); }
    void keepSilent(UartCommand command, int count) { answer(command, "", count); }
    // Answers only at this rate.
    void listenAt(std::uint32_t rate) { rate_ = rate; }
    // Answers nothing before that many requests have come.
    void sleepFor(std::size_t requests) { asleep_ = requests; }

    // The good answer, and one with another status.
    std::string acknowledgement(int command, char data0 = 0, char data1 = 0) const;
    std::string refusal(int command) const { return acknowledgement(command, 0, 1); }

    // Called when a request has come, before its answer.
    std::function<void(const SeenRequest& request)> onRequest = [](const SeenRequest&) {};

    const std::vector<SeenRequest>& requests() const { return requests_; }
    // Only those of one command.
    std::vector<SeenRequest> requests(UartCommand command) const;
    std::string commands() const;  // their numbers in order, as in "8 5 7 6"
    // All blocks that were acknowledged since the last BEGIN.
    const std::string& image() const { return image_; }

  private:
    class Port;

    std::string answerFor(const SeenRequest& request);

    PseudoTerminal terminal_;
    std::map<int, std::deque<std::string>> script_;
    std::uint32_t rate_ = 0;
    std::size_t asleep_ = 0;
    std::vector<SeenRequest> requests_;
    std::string image_;
};
