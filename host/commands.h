#pragma once
// The subcommands of `mirel`. Each takes the arguments after its name and
// gives the process's exit status (see host/arguments.h).
#include <string>
#include <vector>

namespace mirel::host {

using Arguments = std::vector<std::string>;

int runAdd(const Arguments& arguments);
int runList(const Arguments& arguments);
int runShow(const Arguments& arguments);
int runDemo(const Arguments& arguments);
int runPath(const Arguments& arguments);
int runDoctor(const Arguments& arguments);
// Sync (host/sync_commands.cpp).
int runSignin(const Arguments& arguments);
int runSync(const Arguments& arguments);
int runWatch(const Arguments& arguments);
int runStatus(const Arguments& arguments);
int runWorkspace(const Arguments& arguments);
int runAdopt(const Arguments& arguments);
int runSignout(const Arguments& arguments);
int runMcpConfig(const Arguments& arguments);

extern const char* const addUsage;
extern const char* const listUsage;
extern const char* const showUsage;
extern const char* const demoUsage;
extern const char* const pathUsage;
extern const char* const doctorUsage;
extern const char* const signinUsage;
extern const char* const syncUsage;
extern const char* const watchUsage;
extern const char* const statusUsage;
extern const char* const workspaceUsage;
extern const char* const adoptUsage;
extern const char* const signoutUsage;
extern const char* const mcpConfigUsage;

}  // namespace mirel::host
