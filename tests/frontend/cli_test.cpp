// The `ambrel` command's conventions, without a daemon: help, usage errors
// and a missing ambreld each end with their documented exit status.
#include "daemon_fixture.h"

namespace fetest {
namespace {

TEST(AmbrelCommand, ExitStatusesFollowTheConventions)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *stdoutHas;
    } cases[] = {
        {{"--help"}, 0, "Usage: ambrel"},
        {{"send", "--help"}, 0, "Usage: ambrel send NAME BYTES"},
        {{"play", "Piano", "x.mid", "-h"}, 0, "Usage: ambrel play NAME FILE"},
        {{"help", "monitor"}, 0, "--timeout SECONDS"},
        {{"help"}, 0, "Commands:"},
        {{"help", "frobnicate"}, 2, ""},
        {{"--version"}, 0, "ambrel "},
        {{}, 2, ""},
        {{"frobnicate"}, 2, ""},
        {{"--colour"}, 2, ""},
        {{"send", "Piano"}, 2, ""},
        {{"send", "Piano", "zz"}, 2, ""},
        {{"hold"}, 2, ""},
        {{"hold", "Piano", "--sysex", "lots"}, 2, ""},
        {{"hold", "Piano", "--sysex", "8175"}, 2, ""},
        {{"monitor", "Piano", "--timeout", "soon"}, 2, ""},
        {{"play", "Piano", "-", "-"}, 2, ""},
        {{"list", "--yaml"}, 2, ""},
        {{"hold", "Piano", "--manufacturer", "{bad}"}, 2, ""},
        {{"hold", "Piano", "--read", "--thru"}, 2, ""},
        {{"monitor", "Piano", "--count", "0"}, 2, ""},
        {{"play", "Piano", "song.mid", "--speed", "-1"}, 2, ""},
        {{"--mount", "/nonexistent", "list"}, 3, ""},
        {{"--mount", "/nonexistent", "send", "Piano", "90 3C 64"}, 3, ""},
        {{"--mount", "/nonexistent", "hold", "Piano", "--count", "1"}, 3, ""},
        {{"--mount", "/nonexistent", "play", "Piano", "/nonexistent/song.mid"}, 3, ""},
    };
    for (const Case &c : cases) {
        std::vector<std::string> argv{AMBREL_CLI_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Command cmd(argv);
        std::string joined;
        for (const std::string &a : c.args) {
            joined += a + " ";
        }
        EXPECT_EQ(cmd.wait(), c.status) << joined;
        EXPECT_NE(cmd.output().find(c.stdoutHas), std::string::npos) << joined;
    }
}

} // namespace
} // namespace fetest
