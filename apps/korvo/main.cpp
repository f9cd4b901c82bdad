#include "commandline.h"

int main(int argc, char** argv) { return korvo::runProgram(argc, argv); }
