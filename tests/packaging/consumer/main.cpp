// The smallest user of the installed library: one value into a store of its own, and out again.

#include <iostream>

#include "korlo/osa/Exception.h"
#include "settings/KorloSettingsClient.h"

using korlo::settings::KorloSettingsClient;

int main()
{
    try
    {
        KorloSettingsClient client(KorloSettingsClient::Local);
        client.SetValue("[Greeting]text", "it works");
        std::cout << client.GetValue("[Greeting]text") << '\n';
        return 0;
    }
    catch (const korlo::osa::Exception& exception)
    {
        std::cerr << exception.what() << '\n';
        return 1;
    }
}
