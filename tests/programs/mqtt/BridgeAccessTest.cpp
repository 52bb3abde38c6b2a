// Brokers that do not let everybody in.

#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocket.h"
#include "support/BridgeScene.h"

namespace korlo
{
namespace
{

using testing::HasSubstr;
using testing::Not;

/// Runs a shell command; throws when it fails.
void Shell(const std::string& command)
{
    ChildProcess child({"sh", "-ec", command});
    if (child.Wait() != 0)
    {
        throw std::runtime_error(command + ": " + child.GetErrors());
    }
}

/// A broker with passwords and rules: "panel" may do what a device may, "fleet" everything, "mute" nothing.
class PasswordBrokerTest : public BridgeScene
{
protected:
    PasswordBrokerTest()
    {
        WriteFile(PathOf("passwords"), "panel:sesame\nfleet:open\nmute:mute\n");
        Shell("mosquitto_passwd -U '" + PathOf("passwords") + "'");
        WriteFile(PathOf("acl"), "pattern readwrite korlo/1/%u/#\nuser fleet\ntopic readwrite #\n");
        _broker.End();
        _broker.SetOptions("password_file " + PathOf("passwords") + "\nacl_file " + PathOf("acl") + '\n');
        _broker.Start();
        _pFleet = std::make_unique<MqttClient>(_broker.GetPort(), "korlo/#", MqttClient::Access{"fleet", "open", ""});
    }
};

TEST_F(PasswordBrokerTest, APasswordLetsTheBridgeIn)
{
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, "username=panel\npassword=sesame\n");
    AwaitBridge();
    Fleet().Await(Reported("A"), R"("k":"1")");
    Wish("A", R"({"k":"2"})", 1);
    AwaitAccepted("A", 1);
}

TEST_F(PasswordBrokerTest, APasswordMayComeFromAFile)
{
    StartServer("[A]\nk=1\n");
    WriteFile(PathOf("password"), "sesame\n");
    StartBridge(Everything, "username=panel\npassword-file=" + PathOf("password") + '\n');
    AwaitBridge();
    Fleet().Await(Reported("A"), R"("k":"1")");
}

TEST_F(PasswordBrokerTest, AWrongPasswordIsToldAndNotShown)
{
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, "username=panel\npassword=swordfish\n");
    _pBridge->AwaitLog("the broker refuses the connection: ");
    _pBridge->AwaitLog("trying again");
    EXPECT_EQ(_pBridge->End(), 0);
    EXPECT_THAT(_pBridge->GetChild().GetErrors(), Not(HasSubstr("swordfish")));
    EXPECT_THAT(_pBridge->GetChild().GetErrors(), HasSubstr("username and password of [Broker]"));
}

TEST_F(PasswordBrokerTest, WhatTheBrokerForbidsIsToldAndNotMistakenForSuccess)
{
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, "username=mute\npassword=mute\n");  // not this device's name
    _pBridge->AwaitLog("The broker refuses a message to 'korlo/1/panel/status': ");
    _pBridge->AwaitLog("Group 'A' is not reported, until it changes: the broker refuses its message: ");
    EXPECT_FALSE(Fleet().Has(Status()));
}

/// A broker with TLS.
class TlsBrokerTest : public BridgeScene
{
protected:
    /// A certificate authority, and what it has signed, beside each other.
    TlsBrokerTest()
    {
        Shell("cd '" + _folder.GetPath() +
              "'; openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.pem "
              "-days 2 -subj /CN=ca 2>/dev/null; "
              "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout strange.key -out "
              "strange.pem -days 2 -subj /CN=strange 2>/dev/null");
        Sign("server", "-days 2", "IP:127.0.0.1");
        Sign("client", "-days 2", "DNS:panel");
    }

    void Sign(const std::string& name, const std::string& validity, const std::string& subject) const
    {
        WriteFile(PathOf(name + ".ext"), "subjectAltName=" + subject + '\n');
        Shell("cd '" + _folder.GetPath() +
              "'; openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name + ".key -out " +
              name + ".csr -subj /CN=" + name + " 2>/dev/null; openssl x509 -req -in " + name +
              ".csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile " + name + ".ext -out " + name + ".pem " +
              validity + " 2>/dev/null");
    }

    /// A certificate of another time.
    void SignFor(const std::string& begin, const std::string& end) const
    {
        Shell("cd '" + _folder.GetPath() +
              "'; mkdir -p db; : > db/index; echo 01 > db/serial; "
              "printf '[ca]\\ndefault_ca=c\\n[c]\\ndatabase=db/index\\nserial=db/serial\\nnew_certs_dir=db\\n"
              "default_md=sha256\\npolicy=p\\n[p]\\ncommonName=supplied\\n' > ca.cnf; "
              "openssl ca -batch -config ca.cnf -cert ca.pem -keyfile ca.key -in server.csr -extfile server.ext "
              "-startdate " +
              begin + " -enddate " + end + " -out server.pem 2>/dev/null");
    }

    void StartBroker(const std::string& more = "")
    {
        _broker.End();
        _broker.SetOptions("allow_anonymous true\ncertfile " + PathOf("server.pem") + "\nkeyfile " +
                           PathOf("server.key") + '\n' + more);
        _broker.Start();
    }

    std::string CaFile(const std::string& name = "ca") const { return "ca-file=" + PathOf(name + ".pem") + '\n'; }
};

TEST_F(TlsBrokerTest, ABrokerOfTheRightAuthorityIsTrusted)
{
    StartBroker();
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("Connected to the broker");
    EXPECT_EQ(_pBridge->End(), 0);
}

TEST_F(TlsBrokerTest, AClientCertificateLetsTheBridgeIn)
{
    StartBroker("cafile " + PathOf("ca.pem") + "\nrequire_certificate true\n");
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("Failed to connect to the broker");
    StartBridge(Everything,
                CaFile() + "cert-file=" + PathOf("client.pem") + "\nkey-file=" + PathOf("client.key") + '\n');
    _pBridge->AwaitLog("Connected to the broker");
}

TEST_F(TlsBrokerTest, ABrokerOfAStrangeAuthorityIsRefused)
{
    StartBroker();
    StartBridge(Everything, CaFile("strange"));
    _pBridge->AwaitLog("the broker's certificate is refused: ");
    _pBridge->AwaitLog("look at ca-file and host of [Broker]");
}

TEST_F(TlsBrokerTest, ABrokerOfAnotherNameIsRefused)
{
    Sign("server", "-days 2", "DNS:elsewhere");
    StartBroker();
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("Failed to connect to the broker");
}

TEST_F(TlsBrokerTest, WhereTheClockMayBeWrongTheMessageSaysSo)
{
    SignFor("20010101000000Z", "20020101000000Z");
    StartBroker();
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("certificate has expired by the clock of this device, which says 20");
    _pBridge->AwaitLog("the clock may be wrong");
}

TEST_F(TlsBrokerTest, SoItDoesForACertificateOfTheFuture)
{
    SignFor("20700101000000Z", "20710101000000Z");
    StartBroker();
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("certificate is not yet valid by the clock of this device, which says 20");
    _pBridge->AwaitLog("the clock may be wrong");
}

TEST_F(TlsBrokerTest, ABrokerWithoutTlsIsToldFromOneThatIsAway)
{
    StartBridge(Everything, CaFile());
    _pBridge->AwaitLog("Failed to connect to the broker");
}

TEST(OldBrokerTest, ABrokerThatDoesNotSpeakMqtt5IsToldSo)
{
    const TemporaryFolder folder;
    osa::TcpListener listener("127.0.0.1", 0);
    WriteFile(folder.PathOf("mqtt.ini"),
              "[Broker]\nhost=127.0.0.1\nport=" + std::to_string(listener.GetPort()) + "\n[Device]\nname=panel\n");
    BridgeProcess bridge(folder.PathOf("mqtt.ini"));
    const std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept();
    const std::string refusal("\x20\x02\x00\x01", 4);  // "unacceptable protocol version", as MQTT 3.1.1 says it
    pSocket->WriteAll(refusal.data(), refusal.size(), 1000);
    bridge.AwaitLog("the broker does not speak MQTT 5");
}

}  // namespace
}  // namespace korlo
