// The orvo tool's subcommands; each parses argv[first..] and returns the process exit status.
#pragma once

namespace orvo_tool {

int runInfo(int argc, char** argv, int first);
int runGrab(int argc, char** argv, int first);
int runDepth(int argc, char** argv, int first);
int runImu(int argc, char** argv, int first);
int runRecord(int argc, char** argv, int first);
int runCalibrate(int argc, char** argv, int first);
int runCheck(int argc, char** argv, int first);
int runList(int argc, char** argv, int first);
int runVcam(int argc, char** argv, int first);
int runView(int argc, char** argv, int first);

}  // namespace orvo_tool
