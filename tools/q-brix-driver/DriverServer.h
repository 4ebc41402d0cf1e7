// Serves a ReferenceDriver on the data root's device socket ("<run>/q-Brix.sock", framed control
// requests) and control socket ("<run>/q-Brix.ctl", one text command per line: "connect ...",
// "status"), plays a scenario, and ends on SIGTERM or SIGINT. One thread; a client that sends a
// malformed frame gets a failure reply or is dropped, and the others are served on.
#pragma once

#include <string>
#include <vector>

#include "ReferenceDriver.h"
#include "Scenario.h"

namespace qbrix::refdriver {

// More work for the server's one thread: descriptors to wait on, and a tick.
class PollSource {
  public:
    virtual ~PollSource() = default;
    virtual std::vector<int> Fds() const = 0;
    virtual void Ready(int fd) = 0;
    // Periodic work; returns when it wants to run next.
    virtual ReferenceDriver::Clock::time_point Tick(ReferenceDriver::Clock::time_point now) = 0;
};

class DriverServer {
  public:
    DriverServer(ReferenceDriver& driver, std::string dataRoot);
    ~DriverServer();
    DriverServer(const DriverServer&) = delete;
    DriverServer& operator=(const DriverServer&) = delete;

    // Binds both sockets and writes the pid file. 0 on success; 1 with a reason in *error
    // (among them: the device socket is already served by another driver).
    int Open(std::string* error);
    void SetScenario(std::vector<ScenarioStep> steps);
    // Served in the same loop as the sockets; not owned.
    void AddSource(PollSource* source);
    // Serves until Stop, SIGTERM or SIGINT.
    void Run();
    // Safe from a signal handler or another thread.
    void Stop();

    std::string DeviceSocket() const;
    std::string ControlSocket() const;
    std::string PidFile() const;
    // Writes this process's id into the pid file (0640, or 0600 on a user's own data root).
    void WritePidFile() const;

  private:
    struct Client {
        int fd;
        bool control;
        std::string buffer;
    };

    bool ServeDevice(Client& client);
    bool ServeControl(Client& client);
    void PlayDueSteps();
    void Close();

    ReferenceDriver& m_driver;
    std::string m_dataRoot;
    int m_deviceListener = -1;
    int m_controlListener = -1;
    int m_wake[2] = {-1, -1};
    std::vector<Client> m_clients;
    std::vector<PollSource*> m_sources;
    std::vector<ScenarioStep> m_steps;
    std::size_t m_nextStep = 0;
    ReferenceDriver::Clock::time_point m_scenarioStart;
};

// Sends one command line to a running driver's control socket and returns its answer line.
// 0 on success; 1 with a reason in *answer when no driver answers.
int SendControlCommand(const std::string& dataRoot, const std::string& command,
                       std::string* answer);

}  // namespace qbrix::refdriver
