#include "rearview_report.h"

#include <cctype>
#include <cstdio>

namespace marlo_demo {

namespace {

std::string Fixed(double value, int digits) {
    char text[32];
    snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

/* "display" of "display (client 0)". */
std::string ShortName(const std::string& name) {
    return name.substr(0, name.find(' '));
}

}  // namespace

std::string CameraState(const StreamHealth::Summary& display, uint64_t nowNs) {
    if (!display.down)
        return "camera live";
    double seconds =
        nowNs > display.downSinceNs ? static_cast<double>(nowNs - display.downSinceNs) / 1e9 : 0;
    std::string cause = display.downCause;
    for (char& c : cause)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return "CAMERA " + cause + " " + Fixed(seconds, 1) + " s, last picture kept";
}

std::string ProgressLine(double seconds, const FrameStats::Summary& shown,
                         const FrameStats::Summary& recorded,
                         const std::vector<StreamHealth::Summary>& health, uint64_t nowNs) {
    std::string line = "rearview: " + Fixed(seconds, 1) + " s | shown " +
                       std::to_string(shown.frames) + " (" + Fixed(shown.fps, 1) +
                       " fps) | recorded " + std::to_string(recorded.frames) + " (" +
                       Fixed(recorded.fps, 1) + " fps)";
    if (!health.empty())
        line += " | " + CameraState(health[0], nowNs);
    for (const StreamHealth::Summary& client : health) {
        std::string brief = BriefHealth(client);
        if (!brief.empty())
            line += " | " + ShortName(client.name) + ": " + brief;
    }
    return line;
}

void PrintEventReport(const std::vector<StreamHealth::Summary>& health, std::ostream& out) {
    PrintHealthTable(health, out);
    out << "lost, stalled, refused: the camera vanished or failed, sent no frame in time, or "
           "refused to start, and the library brought it back by itself; back after: from each "
           "to the client's next frame; dropped: frames the library could not give the client\n";
}

}  // namespace marlo_demo
