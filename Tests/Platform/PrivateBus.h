// A bus daemon of the test's own, with the daemon's policy.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <utility>

// As the system bus's own configuration has it, with the daemon's policy after it.
inline constexpr char kSystemPolicy[] =
    R"(<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
       <allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
       <allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
       <allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
       <allow send_destination="org.freedesktop.DBus"/></policy><include>)" OSTREL_DATA_DIR
    R"(/org.ostrel.dhcp.conf</include>)";

// A bus daemon with that policy; ends with the object. Everything in this process that opens the system bus gets it.
class PrivateBus {
public:
    PrivateBus() {
        std::filesystem::create_directory(directory);
        std::filesystem::permissions(directory, std::filesystem::perms(0755));
        std::ofstream(configuration) << "<busconfig><listen>" << address << "</listen><auth>EXTERNAL</auth>"
                                     << kSystemPolicy << "</busconfig>";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
        const std::string options = " --nofork --nopidfile --nosyslog --print-pid --config-file=" + configuration;
        // NOLINTNEXTLINE(cert-env33-c): the command is this file's own
        daemon = popen(("exec setpriv --pdeathsig KILL dbus-daemon" + options).c_str(), "r");
        char line[16] = "";
        if (fgets(line, sizeof line, daemon) != nullptr) pid = std::stoi(line);  // written when it listens
    }
    ~PrivateBus() {
        Kill();
        std::filesystem::remove_all(directory);
    }
    bool Listens() const { return pid > 0; }
    void Hang() const { kill(pid, SIGSTOP); }
    void Kill() {
        if (pid > 0) kill(std::exchange(pid, -1), SIGKILL);
        if (daemon != nullptr) pclose(std::exchange(daemon, nullptr));
    }

private:
    const std::string directory = std::filesystem::temp_directory_path() / ("ostrel-bus-" + std::to_string(getpid()));
    const std::string configuration = directory + "/bus.conf";
    const std::string address = "unix:path=" + directory + "/bus";
    FILE* daemon = nullptr;
    pid_t pid = -1;
};
