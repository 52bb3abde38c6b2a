#include "BridgeProgram.h"

int main(int argc, char** argv)
{
    return korlo::settings::mqtt::RunBridge(argc, argv);
}
