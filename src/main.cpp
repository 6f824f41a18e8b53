#include "server/startup.hpp"

int main(int argc, char** argv) { return spotserver::run(argc, argv); }
