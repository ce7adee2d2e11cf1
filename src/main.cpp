#include "vorlanfactorytool.h"

int main(int argc, char** argv) {
    CVorlanFactoryToolApp application(argc, argv);
    application.InitInstance();
    return 0;
}
