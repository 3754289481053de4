#include "core/app/run.h"

int main(int argc, char** argv) {
    return runService(argc, argv);
}
