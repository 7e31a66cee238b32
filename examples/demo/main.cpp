// The wisock demo: runs each section and prints a summary table at the end.
// To add a section: write DemoRow YourSection() in a file of its own, declare
// it in demo_section.h and list it below.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <vector>

#include "demo_section.h"

int main()
{
    std::printf("wisock demo\n\n");
    const DemoSection sections[] = {
        ModuleSection,
        CompletionPortEchoSection,
        CompletionPortTlsEchoSection,
        MessageWindowEchoSection,
    };
    std::vector<DemoRow> rows;
    for (DemoSection section : sections) {
        rows.push_back(section());
        std::printf("\n");
    }
    std::printf("%-24s %-4s %11s %12s %10s %12s  %s\n", "section", "ok", "connections", "bytes", "seconds",
                "messages/s", "note");
    bool allOk = true;
    for (const DemoRow& r : rows) {
        double rate = r.seconds > 0 ? r.messages / r.seconds : 0.0;
        std::printf("%-24s %-4s %11ld %12lld %10.2f %12.0f  %s\n", r.name.c_str(), r.ok ? "yes" : "NO", r.connections,
                    r.bytes, r.seconds, rate, r.note.c_str());
        allOk = allOk && r.ok;
    }
    return allOk ? 0 : 1;
}
