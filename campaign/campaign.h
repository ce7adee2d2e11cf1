// A factory's worst days: devices with random faults come and go on sixteen sockets, while an
// operator starts, stops, changes pages and imports, and another program touches the list. All of
// it goes through the program's own window; the ledger holds the rules against it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "campaign/answers.h"
#include "campaign/dice.h"
#include "campaign/footprint.h"
#include "campaign/hardship.h"
#include "campaign/ledger.h"
#include "campaign/road.h"
#include "demo/operator/windowoperator.h"
#include "window/vorlanfactorytooldlg.h"

namespace campaign {

// kCalm: sound devices, one after the other, and nobody meddles.
enum class Weather { kCalm, kStorm };

// Works in the current directory. All on the user-interface thread.
class Campaign {
  public:
    // The roads are taken in turn.
    Campaign(std::uint32_t seed, Weather weather, std::vector<Road*> roads);
    ~Campaign();

    // From one list of numbers to the next.
    void playDay();
    // On the first road, with the files that an earlier run has left: the stored list, which has to
    // be this one, or none. Returns only if something of them is lost.
    void playUntilKilled(const std::string& listPath, const std::string& witnessPath);
    // When nothing more is to come.
    void closeWindow();

    // Those that have ended, well or not.
    std::size_t burns() const { return ledger_.goodBurns() + ledger_.failedBurns(); }
    const Ledger& ledger() const { return ledger_; }
    const Answers& answers() const { return answers_; }
    std::size_t days() const { return days_; }
    // In milliseconds of real time, of each page.
    const std::map<QString, long>& longestStops() const { return longestStops_; }

  private:
    struct Socket {
        enum class State { kEmpty, kBurning, kEnded };

        State state = State::kEmpty;
        bool clean = false;      // its device has no faults
        bool disturbed = false;  // somebody has meddled with its burn
        // The place's burn before had not ended when this device came: the first failure told may
        // be that one's.
        bool staleEnd = false;
        bool followsABurn = false;  // the same, as long as this device is there
        bool started = false;       // burning was on since it has had power
        bool restarted = false;     // and began anew since
        ToldEnd end;
        std::chrono::system_clock::time_point since;  // it is what it is
    };

    void openWindow();
    void restartProgram();
    void prepareDay(Road& road);
    void choosePackage();
    void importList();

    // What happens in a short while, by the dice.
    void playSockets(Road& road);
    void playSocket(Road& road, std::size_t number);
    void playOperator(Road& road);
    void resetHub(Road& road);
    void leavePageAndReturn(Road& road);
    void touchList();
    void beginHardship(Road& road);
    void endHardship();
    void closeInMidBurn(Road& road);
    bool hasKeptItsFiles() const;

    void plugNew(Road& road, std::size_t number);
    void plugAgain(Road& road, std::size_t number);
    void powerOn(Road& road, std::size_t number);
    void unplug(Road& road, std::size_t number);
    void unplugAll(Road& road);
    void takeEnds(Road& road, std::size_t number);
    void judgeEnd(Road& road, std::size_t number);
    std::string tileOf(const Road& road, std::size_t number) const;
    bool tileTells(const Road& road, std::size_t number) const;

    bool isBurning() const;
    void start(Road& road);
    void stop(Road& road);
    // How long it took to stop, from then on.
    void noteStop(const Road& road, std::chrono::system_clock::time_point before);
    void finishDay(Road& road);
    void checkTiles();
    void checkFootprint();

    void press(const QString& text);
    // Lets the window live for a moment.
    static void live();
    bool liveUntil(const std::function<bool()>& condition);

    Dice dice_;
    const Weather weather_;
    const std::vector<Road*> roads_;
    Ledger ledger_;
    Answers answers_;
    std::unique_ptr<CVorlanFactoryToolDlg> window_;
    std::unique_ptr<simulator::WindowOperator> hands_;

    std::size_t days_ = 0;
    std::uint32_t wildness_ = 1;  // of today's storm, from 1 to 5
    std::string listPath_;
    std::string listAtImport_;  // its bytes
    bool mayRunOut_ = false;    // of numbers, today
    bool touched_ = false;      // the list, since its import
    bool untilKilled_ = false;
    std::unique_ptr<Hardship> hardship_;  // while there is one
    int hardshipEnds_ = 0;                // the moment of the day
    int moment_ = 0;                      // of the day
    std::array<Socket, Road::kSockets> sockets_;
    std::map<QString, long> longestStops_;
    Footprint first_{};  // once all has been in use
};

}  // namespace campaign
