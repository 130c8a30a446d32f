#include "main/process.h"

int main(int argc, char** argv) { return vrox::run(argc, argv); }
