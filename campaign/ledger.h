// What the campaign holds against the program: every burn that the run log tells of is compared
// with the device's flash at that moment, and every number is accounted for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "simulator/flash.h"
#include "simulator/samplepackage.h"
#include "utils/logutil.h"

namespace campaign {

// How a burn ended, as the run log tells it.
struct ToldEnd {
    bool good = false;
    std::string sn = {};       // of a good burn
    std::string outcome = {};  // of a failed one
};

// Stands in for the run log's printer. All operations may be called from any thread.
class Ledger final : public hj::LogPrinter {
  public:
    // The record of production in the current directory may go on from earlier campaigns.
    Ledger();

    // What is found out from now on goes to the end of that file too, at once, so that it outlives
    // this process: "good NUMBER" and "failed NUMBER" for the burns, "finding TEXT".
    void testifyTo(const std::string& path) { witness_.open(path, std::ios::app); }

    // In the order of their making. Burns that are under way may still use the one before.
    void usePackage(std::shared_ptr<const simulator::SamplePackage> package);
    // A device got power. Burns under way may still belong to the place's device before.
    void plugged(const std::string& place, std::shared_ptr<const simulator::Flash> flash);

    // A list of free numbers, none of which has been in an earlier one.
    void useList(std::vector<std::string> numbers);
    // Another program has had its hands on the file: from now on marks of the list in use may be
    // missing, if that is told.
    void listWasTouched();
    bool isListTouched() const;
    // Compares the list in use with its file. No run may go on.
    void checkList(const std::string& path, const std::set<std::string>& freeNumbers);

    // Reads what is new in the current directory's record of production. Gives the burns that it
    // tells otherwise than the run log, or not at all. A burn gets its row first.
    std::vector<std::string> readRecord();

    // The ends of burns at the place since the last call.
    std::vector<ToldEnd> takeEnds(const std::string& place);
    // Whether a burn that ended well has put the number into a device.
    bool isBurned(const std::string& sn) const;

    // Breaks of the rules.
    void addFinding(const std::string& finding);
    std::vector<std::string> findings() const;

    std::size_t goodBurns() const;
    std::size_t failedBurns() const;
    // How often each reason of a failure was told; digits count as one another.
    std::map<std::string, std::size_t> reasons() const;

    void print(int level, const std::string& line) override;

  private:
    void testify(const std::string& line);
    void find(const std::string& finding);
    void takeFailure(const std::string& message);
    void takeGood(const std::string& place, const std::string& sn);
    void takeRow(const std::string& row);
    void takeEnd(const std::string& place, const std::string& outcome, const std::string& sn);
    void count(const std::string& place, const std::string& outcome, const std::string& sn,
               int ends);

    mutable std::mutex lock_;  // guards all below
    std::deque<std::shared_ptr<const simulator::SamplePackage>> packages_;
    std::map<std::string, std::deque<std::shared_ptr<const simulator::Flash>>> flashes_;
    std::map<std::string, std::vector<ToldEnd>> ends_;
    std::vector<std::string> numbers_;
    // How many more ends than rows of the record there are of each kind, as in
    // "PLACE,成功,NUMBER"; and the places whose next end has no row.
    std::map<std::string, int> unrecorded_;
    std::multiset<std::string> toldUnrecorded_;
    std::uintmax_t recordRead_ = 0;       // in bytes
    std::set<std::string> burned_;        // of all lists
    std::set<std::string> toldUnmarked_;  // of all lists
    bool touched_ = false;
    bool toldLost_ = false;  // that marks of the list are gone
    std::size_t good_ = 0;
    std::size_t failed_ = 0;
    std::map<std::string, std::size_t> reasons_;
    std::vector<std::string> findings_;
    std::ofstream witness_;
};

}  // namespace campaign
