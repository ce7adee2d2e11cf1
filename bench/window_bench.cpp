// The window as its operator feels it: the program's start, sixteen burns that report all the time,
// and their stop. Without a screen: painting counts, a desktop's own work does not. Every benchmark
// checks its budget.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <QApplication>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "demo/operator/windowoperator.h"
#include "measure.h"
#include "platform/process.h"
#include "simulator/packagebuilder.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "storage/globalstorage.h"
#include "support/temporarydirectory.h"
#include "ui/applicationlook.h"
#include "ui/prompts.h"
#include "utils/text.h"
#include "window/vorlanfactorytooldlg.h"

using namespace std::chrono_literals;
using simulator::VirtualUsbDevice;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDevices = 16;
constexpr double kReportsPerSecond = 200;  // of each device
constexpr auto kWatchedTime = 3s;

// Takes the time of what the user-interface thread does.
class WatchedApplication final : public QApplication {
  public:
    using QApplication::QApplication;

    // The longest that one event has taken since the last call, in seconds.
    static double takeLongestEvent() { return std::exchange(longestEvent_, 0.0); }

    bool notify(QObject* receiver, QEvent* event) override {
        // What an event's handler sends in its turn belongs to it.
        if (std::exchange(handling_, true))
            return QApplication::notify(receiver, event);
        const auto start = Clock::now();
        const bool handled = QApplication::notify(receiver, event);
        const std::chrono::duration<double> taken = Clock::now() - start;
        longestEvent_ = std::max(longestEvent_, taken.count());
        handling_ = false;
        return handled;
    }

  private:
    static inline bool handling_ = false;
    static inline double longestEvent_ = 0;
};

// Processor time of the calling thread, in seconds.
double threadTime() {
    std::timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Keeps what the engine prints out of the table of results: it goes where the trace goes.
class PrintsToTrace {
  public:
    PrintsToTrace() : output_(::dup(STDOUT_FILENO)) { turnTo(STDERR_FILENO); }
    ~PrintsToTrace() {
        turnTo(output_);
        ::close(output_);
    }
    PrintsToTrace(const PrintsToTrace&) = delete;
    PrintsToTrace& operator=(const PrintsToTrace&) = delete;

  private:
    static void turnTo(int file) {
        std::fflush(stdout);
        ::dup2(file, STDOUT_FILENO);
    }

    int output_;
};

// An operator who knows one package and expects no box.
class OnePackage final : public Prompts {
  public:
    explicit OnePackage(QString path) : path_(std::move(path)) { substitutePrompts(this); }
    ~OnePackage() { substitutePrompts(nullptr); }
    OnePackage(const OnePackage&) = delete;
    OnePackage& operator=(const OnePackage&) = delete;

    bool sawBox() const { return sawBox_; }

    bool showBox(QWidget* /*parent*/, const QString& /*text*/, const QString& /*caption*/,
                 BoxType /*type*/) override {
        sawBox_ = true;
        return true;
    }
    std::optional<QString> chooseFile(QWidget* /*parent*/, const QString& /*filter*/) override {
        return path_;
    }

  private:
    QString path_;
    bool sawBox_ = false;
};

// A burn reports each new percent, and the data of one image makes 45 of them: images of 45 chunks
// make every chunk a report, and there are enough of them to outlast what is measured.
constexpr int kImages = 60;
constexpr std::size_t kImageSize = std::size_t{45} * 4096;  // bytes
constexpr int kImageDistance = 0x40000;
// For somewhat more than the pace, pauses between images included.
constexpr auto kChunkTime = 3500us;

void writePackage(const std::string& path) {
    simulator::PackageBuilder package;
    std::string items;
    for (int i = 0; i < kImages; ++i) {
        std::string name = "part" + std::to_string(i) + ".bin";
        if (i < 2)
            name = i == 0 ? "flashboot.bin" : "master.bin";
        package.add(name, std::string(kImageSize, static_cast<char>('A' + i)));
        items += std::string(i == 0 ? "" : ",") + R"({"name":")" + name + R"(","addr":")" +
                 QString::number(i * kImageDistance, 16).toStdString() + R"("})";
    }
    package.add("burn.cfg", R"({"burn_items":[)" + items + "]}");
    package.add("burner.img", std::string(5000, 'b'));
    package.write(path);
}

// The window on its USB page, with a package chosen and sixteen devices to burn.
class Floor {
  public:
    Floor() : prompts_(QString::fromStdString((directory_.path() / "package.vrk").string())) {
        writePackage("package.vrk");
        window_.OnInitDialog();
        for (int i = 0; i < kDevices; ++i)
            devices_.push_back(std::make_shared<VirtualUsbDevice>(
                simulator::UsbDeviceOptions{.chunkTime = kChunkTime}));
        ready_ =
            hands_.press(QStringLiteral("USB烧录")) && hands_.press(QStringLiteral("选择固件"));
    }

    // Powers the devices on and starts burning; returns once all of them are being written.
    bool start() {
        for (int i = 0; i < kDevices; ++i)
            bus_.plug("0-" + std::to_string(i + 1), devices_[static_cast<std::size_t>(i)]);
        return ready_ && hands_.press(QStringLiteral("开始烧录")) &&
               simulator::WindowOperator::waitFor([this] { return allBurn(); });
    }

    bool stop() { return hands_.press(QStringLiteral("停止烧录")); }
    bool isStopped() const { return hands_.isEnabled(QStringLiteral("开始烧录")); }

    bool allBurn() const {
        const std::vector<simulator::TileView> tiles = hands_.tiles();
        return tiles.size() == kDevices && std::all_of(tiles.begin(), tiles.end(), [](auto& tile) {
                   return tile.status.startsWith(QStringLiteral("正在写入 "));
               });
    }

    // The chunks that each device has got, and thereby the reports of its burn.
    std::vector<double> reports() const {
        std::vector<double> counts;
        for (const auto& device : devices_)
            counts.push_back(device->count(simulator::UsbFaultPoint::kChunk));
        return counts;
    }

    // Whether nobody has broken a rule or been asked anything.
    bool isSound() const {
        return !prompts_.sawBox() && bus_.errors().empty() &&
               std::all_of(devices_.begin(), devices_.end(),
                           [](const auto& device) { return device->errors().empty(); });
    }

  private:
    PrintsToTrace prints_;
    EnteredDirectory directory_;
    OnePackage prompts_;
    simulator::VirtualUsbBus bus_;
    std::vector<std::shared_ptr<VirtualUsbDevice>> devices_;
    CVorlanFactoryToolDlg window_;
    simulator::WindowOperator hands_{window_};
    bool ready_ = false;
};

struct Start {
    double seconds;
    double megabytes;  // resident
};

// A station in the current folder that has worked for long: its list has so many rows.
void furnishStation(std::int64_t rows) {
    {
        std::ofstream list("numbers.csv", std::ios::binary);
        for (std::int64_t i = 0; i < rows; ++i)
            list << "VRL" << 100'000'000'000 + i << ",0\r\n";
    }
    GlobalStorage& storage = GlobalStorage::getInstance();
    storage.setSnFilePath(text::widen((std::filesystem::current_path() / "numbers.csv").string()));
    storage.save();
}

// From before the process is made until it has painted its window, which the toolkit tells when it
// is asked to log its painting. In the current folder.
std::optional<Start> startProgram() {
    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_LOGGING_RULES"),
                       QStringLiteral("qt.widgets.painting.info=true"));
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    program.setProcessEnvironment(environment);
    program.setReadChannel(QProcess::StandardError);

    const auto start = Clock::now();
    program.start(QString::fromStdString(platform::executableDirectory() + "/../vorlanfactorytool"),
                  {});
    QByteArray told;
    bool painted = false;
    while (!painted && program.waitForReadyRead(10'000)) {
        told += program.readAllStandardError();
        painted = told.contains("qt.widgets.painting: Flushing ");
    }
    const double seconds = secondsSince(start);

    std::ifstream status("/proc/" + std::to_string(program.processId()) + "/status");
    std::string word;
    double kibibytes = 0;
    while (status >> word && word != "VmRSS:") {
    }
    status >> kibibytes;
    program.kill();
    program.waitForFinished();
    if (!painted || kibibytes == 0)
        return std::nullopt;
    return Start{seconds, kibibytes * 1024 / 1e6};
}

// At a new station, and at one with a list of so many rows.
void startToFirstPaint(benchmark::State& state) {
    const EnteredDirectory directory;
    if (state.range(0) != 0)
        furnishStation(state.range(0));
    std::vector<double> seconds;
    std::vector<double> megabytes;
    while (state.KeepRunning()) {
        const std::optional<Start> start = startProgram();
        if (!start) {
            state.SkipWithError("the program has painted nothing");
            return;
        }
        state.SetIterationTime(start->seconds);
        seconds.push_back(start->seconds);
        megabytes.push_back(start->megabytes);
    }
    state.counters["median_ms"] = 1000 * median(seconds);
    state.counters["resident_MB"] = median(megabytes);
    if (median(seconds) >= 0.05)
        state.SkipWithError(
            ("50 ms or more to the first paint: " + std::to_string(1000 * median(seconds)))
                .c_str());
    else if (state.range(0) == 0 && median(megabytes) >= 80)
        state.SkipWithError("80 MB or more resident");
}
BENCHMARK(startToFirstPaint)
    ->ArgName("rows")
    ->Arg(0)
    ->Arg(10'000'000)
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void windowWhileSixteenBurn(benchmark::State& state) {
    Floor floor;
    if (!floor.start()) {
        state.SkipWithError("not all devices are being burned");
        return;
    }
    while (state.KeepRunning()) {
        QEventLoop loop;
        QTimer end;
        end.setTimerType(Qt::PreciseTimer);
        QObject::connect(&end, &QTimer::timeout, &loop, &QEventLoop::quit);
        end.start(kWatchedTime);
        WatchedApplication::takeLongestEvent();
        std::vector<double> reports = floor.reports();
        const double timeBefore = threadTime();
        const auto start = Clock::now();
        loop.exec();
        const double seconds = secondsSince(start);
        const double share = (threadTime() - timeBefore) / seconds;
        const std::vector<double> reportsNow = floor.reports();
        std::transform(reportsNow.begin(), reportsNow.end(), reports.begin(), reports.begin(),
                       std::minus<>());
        const double pace = *std::min_element(reports.begin(), reports.end()) / seconds;
        const double longest = WatchedApplication::takeLongestEvent();
        state.SetIterationTime(seconds);
        state.counters["ui_percent"] = 100 * share;
        state.counters["longest_ms"] = 1000 * longest;
        state.counters["reports_per_s"] = pace;
        if (!floor.allBurn() || !floor.isSound())
            state.SkipWithError("a burn has ended");
        else if (pace < kReportsPerSecond)
            state.SkipWithError(
                ("a device reports only so often a second: " + std::to_string(pace)).c_str());
        else if (share >= 0.1)
            state.SkipWithError("the user-interface thread takes 10 % of a core or more");
        else if (longest > 0.05)
            state.SkipWithError("an event took over 50 ms");
    }
}
BENCHMARK(windowWhileSixteenBurn)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void stopOfSixteenBurns(benchmark::State& state) {
    Floor floor;
    double longest = 0;
    while (state.KeepRunning()) {
        if (!floor.start()) {
            state.SkipWithError("not all devices are being burned");
            return;
        }
        const auto start = Clock::now();
        const bool pressed = floor.stop();
        const double seconds = secondsSince(start);
        longest = std::max(longest, seconds);
        state.SetIterationTime(seconds);
        if (!pressed || !floor.isStopped() || !floor.isSound()) {
            state.SkipWithError("not stopped");
            return;
        }
    }
    state.counters["longest_ms"] = 1000 * longest;
    if (longest >= 0.5)
        state.SkipWithError("the operator waited 500 ms or more");
}
BENCHMARK(stopOfSixteenBurns)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const TemporaryDirectory session;
    std::filesystem::permissions(session.path(), std::filesystem::perms::owner_all);
    qputenv("XDG_RUNTIME_DIR", session.path().c_str());
    qputenv("QT_QPA_PLATFORM", "offscreen");
    WatchedApplication application(argc, argv);
    setUpApplication(application);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
