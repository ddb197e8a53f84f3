#include "app/entry.h"
#include "numerics/ranks.h"

int main(int argc, char** argv)
{
    lib::start_ranks(&argc, &argv);
    const int status = app::run(argc, argv);
    lib::stop_ranks();
    return status;
}
