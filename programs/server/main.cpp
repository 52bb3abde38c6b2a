#include "ServerProgram.h"

int main(int argc, char** argv)
{
    return korlo::daemon::RunServer(argc, argv);
}
