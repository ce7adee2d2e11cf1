#include "platform/process.h"
#include "window/vorlanfactorytool.h"

int main(int argc, char** argv) {
    // Whoever reads the output may leave; the devices are burned all the same.
    platform::surviveClosedPipes();
    CVorlanFactoryToolApp application(argc, argv);
    application.InitInstance();
    return 0;
}
