// The content processor as the live driver's child: started with the driver in live mode, so web
// and mail content is filtered exactly while the machine's connections are; started again when it
// ends unexpectedly. While it is not running its redirection is removed, so web and mail
// connections go straight to their servers instead of to a port nobody serves.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "DriverServer.h"

namespace qbrix::refdriver {

class ContentChild : public PollSource {
  public:
    // `program`: the processor's executable; `arguments` follow it.
    ContentChild(std::string program, std::vector<std::string> arguments);
    ~ContentChild() override;
    ContentChild(const ContentChild&) = delete;
    ContentChild& operator=(const ContentChild&) = delete;

    // Starts the processor and waits until it serves (its first output line). 0, or 1 with the
    // reason in *error.
    int Start(std::string* error);
    void Stop();

    std::vector<int> Fds() const override;
    void Ready(int fd) override;
    ReferenceDriver::Clock::time_point Tick(ReferenceDriver::Clock::time_point now) override;

  private:
    void Reap();

    std::string m_program;
    std::vector<std::string> m_arguments;
    pid_t m_pid = -1;
    int m_pidFd = -1;
    int m_restarts = 0;
    ReferenceDriver::Clock::time_point m_restartAt{};
};

}  // namespace qbrix::refdriver
