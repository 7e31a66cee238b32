// The demo runs sections one after the other; each returns one row of the
// summary table printed at the end. A new section is a function in its own
// file, listed in main.cpp.
#ifndef WISOCK_DEMO_SECTION_H
#define WISOCK_DEMO_SECTION_H

#include <string>

struct DemoRow {
    std::string name;         // what ran
    bool ok = false;          // did it do what it should
    long connections = 0;
    long long bytes = 0;      // application bytes moved (both directions)
    long messages = 0;        // round trips
    double seconds = 0.0;
    std::string note;         // anything worth a word
};

typedef DemoRow (*DemoSection)();

DemoRow ModuleSection();          // load and unload wisock.dll
DemoRow CompletionPortEchoSection();   // echo server and clients on COverlappedSocketFactory
DemoRow CompletionPortTlsEchoSection();   // the same over TLS, factories of kind 1
DemoRow MessageWindowEchoSection();   // CWiTcp listener and client on window threads, plain and TLS

#endif
