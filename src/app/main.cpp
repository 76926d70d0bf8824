#include "app/service.h"

int main(int argc, char** argv) {
    return qnt::runService(argc, argv);
}
