#include "cm_signal.h"

#include <array>

const std::array<SignalName, 32> kSignalNames{{
    {SIGABRT, "SIGABRT"}, {SIGALRM, "SIGALRM"},     {SIGBUS, "SIGBUS"},       {SIGCHLD, "SIGCHLD"},
    {SIGCONT, "SIGCONT"}, {SIGFPE, "SIGFPE"},       {SIGHUP, "SIGHUP"},       {SIGILL, "SIGILL"},
    {SIGINT, "SIGINT"},   {SIGIO, "SIGIO"},         {SIGIOT, "SIGIOT"},       {SIGKILL, "SIGKILL"},
    {SIGPIPE, "SIGPIPE"}, {SIGPOLL, "SIGPOLL"},     {SIGPROF, "SIGPROF"},     {SIGPWR, "SIGPWR"},
    {SIGQUIT, "SIGQUIT"}, {SIGSEGV, "SIGSEGV"},     {SIGSTOP, "SIGSTOP"},     {SIGSYS, "SIGSYS"},
    {SIGTERM, "SIGTERM"}, {SIGTRAP, "SIGTRAP"},     {SIGTSTP, "SIGTSTP"},     {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"}, {SIGURG, "SIGURG"},       {SIGUSR1, "SIGUSR1"},     {SIGUSR2, "SIGUSR2"},
    {SIGVTALRM, "SIGVTALRM"}, {SIGWINCH, "SIGWINCH"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
}};

const char* cm_signal_name(int sig) {
  for (const auto& s : kSignalNames)
    if (s.sig == sig) return s.name;
  return "SIG?";
}
