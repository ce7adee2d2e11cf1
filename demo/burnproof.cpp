#include "demo/burnproof.h"

#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "demo/demopackage.h"
#include "storage/globalstorage.h"

namespace simulator {
namespace {

constexpr std::size_t kSnLength = 15;

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::uint32_t snAddress() {
    return GlobalStorage::getInstance().getSnBurnAddr();
}

std::string serialNumberIn(const Flash& flash) {
    const auto bytes = flash.read(snAddress(), kSnLength);
    return std::string(bytes.begin(), bytes.end());
}

// The numbers that can still be handed out.
std::set<std::string> freeNumbers() {
    SerialNumFile& pool = GlobalStorage::getInstance().getSnFile();
    std::vector<SerialNumFile::SnRecord*> taken;
    while (SerialNumFile::SnRecord* const record = pool.takeNext())
        taken.push_back(record);
    std::set<std::string> numbers;
    for (SerialNumFile::SnRecord* const record : taken) {
        numbers.insert(record->sn);
        pool.releaseRecord(record);
    }
    return numbers;
}

}  // namespace

BurnProof::BurnProof(const SamplePackage& package, std::string csvPath, unsigned numbers)
    : package_(package), csvPath_(std::move(csvPath)), numbers_(numbers) {}

std::string BurnProof::troubleWithBurned(const Flash& flash, const TileView& outcome) {
    const std::string sn = serialNumberIn(flash);
    if (outcome.status != QString::fromStdString("烧录成功！SN=" + sn))
        return "tile and flash disagree on the serial number";
    if (outcome.percent != 100)
        return "the bar is not full";
    if (!burned_.insert(sn).second)
        return "serial number given twice";
    return package_.isIn(flash, sn, snAddress()) ? "" : "flash differs from the package";
}

std::string BurnProof::troubleWithNumberless(const Flash& flash) const {
    return package_.isIn(flash, {}, snAddress()) ? "" : "flash differs from the package";
}

// Just the rows of burned devices are marked in the file on the disk, and every other number is
// free: none is lost, those of failed devices are back.
bool BurnProof::checkSerialNumbers(Report& report) const {
    std::string expected = demoSerialNumbers(numbers_);
    for (const std::string& sn : burned_) {
        const std::size_t row = expected.find(sn + ",0\r\n");
        if (row == std::string::npos)
            return report.fail("unknown serial number " + sn);
        expected[row + sn.size() + 1] = '1';
    }
    if (readWhole(csvPath_) != expected)
        return report.fail("the serial number file does not tell what was burned");

    const std::set<std::string> free = freeNumbers();
    report.line("serial numbers: %u in the file, %zu burned and marked, %zu free", numbers_,
                burned_.size(), free.size());
    for (const std::string& sn : burned_) {
        if (free.contains(sn))
            return report.fail("burned and still free: " + sn);
    }
    return burned_.size() + free.size() == numbers_ || report.fail("serial numbers are lost");
}

// A tile tells of a success a moment before the count does.
bool BurnProof::checkBurnCount(Report& report, const DemoOperator& worker) const {
    const bool right =
        WindowOperator::waitFor([&] { return worker.burnCount() == burned_.size(); }, 2000);
    report.line("burn count in the window: %u", worker.burnCount());
    return right || report.fail("the burn count is wrong");
}

}  // namespace simulator
