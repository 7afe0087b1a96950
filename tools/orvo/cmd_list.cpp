// orvo list: the camera nodes present, with their card, bus and whether another program has them.
#include <cstdio>
#include <string>

#include <orvo/devices.hpp>

#include "commands.h"
#include "session.h"

namespace orvo_tool {

int runList(int argc, char** argv, int first) {
    Command cmd("orvo list", "[--virtual[=SCENE]]",
                "Lists the capture nodes that offer the camera's 752x480 YUYV format.\n"
                "With --virtual the virtual camera's node is listed too.");
    cmd.option({"virtual", Value::Optional, "SCENE", "include the virtual camera's node", ""});
    const Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    if (args.has("virtual")) {
        DeviceChoice device;
        device.path = kVirtualNode;
        device.is_virtual = true;
        device.source = virtualSource(args.text("virtual"));
        activateVirtual(device);
    }
    const auto devices = orvo::list_devices();
    if (devices.empty()) {
        std::printf("no camera found (is it plugged in? are you in the video group?)\n");
        return kExitFailure;
    }
    std::printf("%-22s %-6s %-28s %s\n", "NODE", "STATE", "CARD", "BUS");
    for (const auto& d : devices)
        std::printf("%-22s %-6s %-28s %s\n", d.node.c_str(), d.busy ? "busy" : "free", d.card.c_str(),
                    d.bus_info.c_str());
    return kExitOk;
}

}  // namespace orvo_tool
