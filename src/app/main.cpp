#include "app/entry.h"

int main(int argc, char** argv) { return app::run(argc, argv); }
