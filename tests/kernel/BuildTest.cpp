#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vesk/Build.h>
#include <vesk/Config.h>
#include <vesk/Context.h>
#include <vesk/Engine.h>
#include <vesk/FileCache.h>
#include <vesk/Host.h>
#include <vesk/Logger.h>
#include <vesk/Reactor.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

// The opening of a server.xml, one element per line, so that a line inside <Host> is
// line 6, inside <Engine> line 5 and inside <Service> line 4.
const char* kOpen =
    "<Server>\n"
    "<License owner=\"Example Ltd\">0123-4567</License>\n"
    "<Service>\n"
    "<Engine defaultHost=\"localhost\">\n"
    "<Host name=\"localhost\" appBase=\"webapps\">\n";
const char* kClose = "</Host>\n</Engine>\n</Service>\n</Server>\n";

std::string inHost(const std::string& lines) {
        return kOpen + lines + kClose;
}

std::string inEngine(const std::string& lines) {
        std::string open = kOpen;
        return open.substr(0, open.find("<Host")) + lines + "</Engine>\n</Service>\n</Server>\n";
}

std::string inService(const std::string& lines) {
        std::string open = kOpen;
        return open.substr(0, open.find("<Engine")) + lines + "</Service>\n</Server>\n";
}

std::string realPath(const std::string& path) {
        char real[PATH_MAX];
        return realpath(path.c_str(), real) ? real : path;
}

// A home with conf/, logs/ and webapps/ holding ROOT and app.
class BuildTest : public testing::Test {
protected:
        void SetUp() override {
                for (const char* dir : {"conf", "logs", "webapps", "webapps/ROOT", "webapps/app"})
                        mkdir((home / dir).c_str(), 0755);
                real = realPath(home.path());
        }
        void TearDown() override {
                if (B)
                        Build_free(&B);
        }

        std::string serverXml() const { return home / "conf/server.xml"; }

        // Parses xml as the home's server.xml; the message it raised, or "".
        std::string parse(const std::string& xml) {
                home.write("conf/server.xml", xml);
                if (B)
                        Build_free(&B);
                return assertion(
                    [&] { B = Build_parse(home.path().c_str(), serverXml().c_str()); });
        }

        // The message a fault in server.xml raises: the reason, the file and the line.
        std::string at(const std::string& reason, int line) const {
                return reason + " -- in '" + serverXml() + "' near line " + std::to_string(line);
        }

        TempDir home;
        std::string real;
        Build_T B = nullptr;
};

struct Fault {
        std::string xml;
        std::string reason;
        int line;
};

}  // namespace

TEST_F(BuildTest, ParsesAServerIntoItsTree) {
        home.write("webapps/app/index.html", "hi");
        mkdir((home / "webapps/shop").c_str(), 0755);
        std::string xml =
            "<Server>\n"
            "<License owner=\"Example Ltd\">0123-4567</License>\n"
            "<Service>\n"
            "<Engine defaultHost=\"localhost\" fileCache=\"20\">\n"
            "<Host name=\"localhost\" appBase=\"webapps\" alias=\"127.0.0.1\" colour=\"red\">\n"
            "<accesslogger directory=\"logs\" fileName=\"access.log\" rotate=\"Week\"/>\n"
            "<Logger directory=\"logs\" fileName=\"app.log\" timestamp=\"TRUE\"/>\n"
            "<Context path=\"\" docBase=\"ROOT\"/>\n"
            "<Context path=\"/app\" docBase=\"app\" reloadable=\"true\" sessionTimeout=\"60\"/>\n"
            "<Context path=\"/app\" docBase=\"shop\" saveSessions=\"true\"/>\n"
            "<Context path=\"/shop\" docBase=\"" +
            home / "webapps/shop" +
            "\" maxActiveSessions=\"0\"/>\n"
            "</Host>\n"
            "</Engine>\n"
            "</Service>\n"
            "</Server>\n";
        ASSERT_EQ(parse(xml), "");
        ASSERT_TRUE(B);
        Host_T host = Build_findHost(B, "localhost");
        ASSERT_TRUE(host);
        EXPECT_EQ(Build_defaultHost(B), host);
        EXPECT_EQ(Build_findHost(B, "127.0.0.1"), host);
        EXPECT_EQ(Build_findHost(B, "elsewhere"), nullptr);
        EXPECT_EQ(std::string(Host_getAppBase(host)), real + "/webapps");
        EXPECT_EQ(FileCache_getMaxSize(FileCache_getInstance()), 20 * 102400);

        // A second <Context> with a path already known configures the first one.
        Context_T app = Host_getContext(host, "/app");
        ASSERT_TRUE(app);
        EXPECT_EQ(std::string(Context_getDocBase(app)), real + "/webapps/app");
        EXPECT_TRUE(Context_getReloadable(app));
        EXPECT_TRUE(Context_getSaveSessions(app));
        EXPECT_EQ(Context_getSessionTimeout(app), 60);
        Context_T shop = Host_getContext(host, "/shop");
        ASSERT_TRUE(shop);
        EXPECT_EQ(std::string(Context_getDocBase(shop)), home / "webapps/shop");
        EXPECT_EQ(Context_getSessionManager(shop), nullptr);
        ASSERT_TRUE(Host_getDefaultContext(host));
        EXPECT_EQ(std::string(Context_getContextPath(Host_getDefaultContext(host))), "");

        // The access log never stamps its lines, the application log only when asked.
        ASSERT_TRUE(Host_getAccessLogger(host));
        EXPECT_EQ(std::string(Logger_getFileName(Host_getAccessLogger(host))),
                  real + "/logs/access.log");
        EXPECT_FALSE(Logger_getTimestamp(Host_getAccessLogger(host)));
        EXPECT_TRUE(Logger_getRotate(Host_getAccessLogger(host)));
        ASSERT_TRUE(Host_getLogger(host));
        EXPECT_TRUE(Logger_getTimestamp(Host_getLogger(host)));
}

TEST_F(BuildTest, RepeatedServiceAndEngineConfigureTheSameObjects) {
        mkdir((home / "other").c_str(), 0755);
        std::string xml =
            "<Server>\n"
            "<License owner=\"Example Ltd\"/>\n"
            "<Service>\n"
            "<Engine defaultHost=\"localhost\">\n"
            "<Host name=\"localhost\" appBase=\"webapps\"/>\n"
            "</Engine>\n"
            "</Service>\n"
            "<Service>\n"
            "<Engine defaultHost=\"localhost.localdomain\"/>\n"
            "<Engine defaultHost=\"127.0.0.1\">\n"
            "<Host name=\"127.0.0.1\" appBase=\"" +
            home / "other" +
            "\"/>\n"
            "</Engine>\n"
            "</Service>\n"
            "</Server>\n";
        ASSERT_EQ(parse(xml), "");
        // The later defaultHost wins; both hosts live in the one Engine.
        EXPECT_EQ(Build_defaultHost(B), Build_findHost(B, "127.0.0.1"));
        EXPECT_TRUE(Build_findHost(B, "localhost"));
}

TEST_F(BuildTest, StructureFaultsNameTheElementAndTheLine) {
        const std::vector<Fault> faults = {
            {"<Config/>\n", "XML parse error -- invalid element <Config>", 1},
            {"<Server>\n<License owner=\"a\"/>\n<Host/>\n</Server>\n",
             "XML parse error -- element <Host> not allowed inside <Server>", 3},
            {inService("<Host name=\"localhost\" appBase=\"webapps\"/>\n"),
             "XML parse error -- element <Host> not allowed inside <Service>", 4},
            {inEngine("<Context path=\"\" docBase=\"ROOT\"/>\n"),
             "XML parse error -- element <Context> not allowed inside <Engine>", 5},
            {inHost("<Connector port=\"80\"/>\n"),
             "XML parse error -- element <Connector> not allowed inside <Host>", 6},
            {"<Server>\n<License owner=\"a\"/>\n</Service>\n</Server>\n",
             "XML parse error -- invalid element </Service>", 3},
            {"<Server>\n<Service>\n</Service>\n</Server>\n",
             "XML parse error -- element <License> is required inside <Server>", 4},
            {"<Server>\n<License>0123</License>\n</Server>\n",
             "The owner attribute was not defined in the <License> element", 2},
            {"<Server>\n<License owner=\"\"/>\n</Server>\n",
             "The owner attribute was not defined in the <License> element", 2},
        };
        for (const Fault& f : faults)
                EXPECT_EQ(parse(f.xml), at(f.reason, f.line)) << f.xml;
        EXPECT_EQ(B, nullptr);
}

TEST_F(BuildTest, SyntaxErrorsComeFromTheParser) {
        std::string message = parse("<Server>\n<License owner=\"a\"/>\n<Service\n\n");
        EXPECT_EQ(message.rfind("XML parse error -- Parse error at line [", 0), 0u) << message;
        EXPECT_NE(message.find(" -- in '" + serverXml() + "' near line "), std::string::npos);
}

TEST_F(BuildTest, ConnectorAndEngineAttributeFaults) {
        const std::vector<Fault> faults = {
            {inService("<Connector port=\"http\"/>\n"),
             "The value 'http' given in <Connector> attribute 'port' is not a number", 4},
            {inService("<Connector port=\"8080\"\nipversion=\"5\"/>\n"),
             "Configure parameter(ipversion): Invalid IP-version (5)", 5},
            {inService("<Engine/>\n"),
             "The defaultHost attribute was not defined in the <Engine> element", 4},
            {inService("<Engine defaultHost=\"localhost\" fileCache=\"-1\"/>\n"),
             "Invalid negative fileCache size", 4},
            {inService("<Engine defaultHost=\"localhost\" fileCache=\"big\"/>\n"),
             "The value 'big' given in <Engine> attribute 'fileCache' is not a number", 4},
        };
        for (const Fault& f : faults)
                EXPECT_EQ(parse(f.xml), at(f.reason, f.line)) << f.xml;
        // A scheme other than http or https, an unknown attribute: warnings only.
        EXPECT_EQ(parse(inService("<Connector proxyScheme=\"FTP\" colour=\"red\"/>\n"
                                  "<Engine defaultHost=\"localhost\" fileCache=\"0\">\n"
                                  "<Host name=\"localhost\" appBase=\"webapps\"/>\n"
                                  "</Engine>\n")),
                  "");
        EXPECT_EQ(FileCache_getMaxSize(FileCache_getInstance()), 0);
}

TEST_F(BuildTest, HostAttributeFaults) {
        home.write("conf/host.pem", "not really a certificate");
        const std::vector<Fault> faults = {
            {inEngine("<Host appBase=\"webapps\"/>\n"),
             "The name attribute was not defined in the <Host> element", 5},
            {inEngine("<Host name=\"localhost\"/>\n"),
             "The appBase attribute was not defined in the <Host> element", 5},
            {inEngine("<Host name=\"no-such-host.invalid\" appBase=\"webapps\"/>\n"),
             "Cannot resolve host 'no-such-host.invalid' given in <Host> attribute 'name'", 5},
            {inEngine("<Host name=\"localhost\" appBase=\"missing\"/>\n"),
             "The directory '" + real +
                 "/missing' given in <Host> attribute 'appBase' does not exist",
             5},
            {inEngine("<Host name=\"localhost\" appBase=\"webapps\" alias=\"x.invalid\"/>\n"),
             "Cannot resolve host 'x.invalid' given in <Host> attribute 'alias'", 5},
            {inEngine(
                 "<Host name=\"localhost\" appBase=\"webapps\" certificate=\"conf/host.pem\"/>\n"),
             "Please specify the address to use in the <Host> address attribute", 5},
            {inEngine("<Host name=\"localhost\" appBase=\"webapps\" certificate=\"conf/none.pem\" "
                      "address=\"127.0.0.1\"/>\n"),
             "Certificate file '" + home.path() +
                 "/conf/none.pem' given in <Host> certificate attribute does not exist",
             5},
            {inEngine("<Host name=\"localhost\" appBase=\"webapps\"/>\n"
                      "<Host name=\"localhost\" appBase=\"webapps\"/>\n"),
             "A host with the name 'localhost' has already been added", 6},
        };
        for (const Fault& f : faults)
                EXPECT_EQ(parse(f.xml), at(f.reason, f.line)) << f.xml;
}

TEST_F(BuildTest, ContextAndLoggerFaults) {
        const std::vector<Fault> faults = {
            {inHost("<Context docBase=\"app\"/>\n"),
             "The path attribute was not defined in the <Context> element", 6},
            {inHost("<Context path=\"/app\"/>\n"),
             "The docBase attribute was not defined in the <Context> element", 6},
            {inHost("<Context path=\"/app\" docBase=\"gone\"/>\n"),
             "The directory '" + real +
                 "/webapps/gone' given in <Context> attribute 'docBase' does not exist",
             6},
            {inHost("<Context path=\"/app\" docBase=\"app\" sessionTimeout=\"0\"/>\n"),
             "sessionTimeout must be > 0", 6},
            {inHost("<Context path=\"/app\" docBase=\"app\" maxActiveSessions=\"many\"/>\n"),
             "The value 'many' given in <Context> attribute 'maxActiveSessions' is not a number",
             6},
            {inHost("<Accesslogger directory=\"logs\" fileName=\"a.log\" rotate=\"hourly\"/>\n"),
             "Invalid log rotate period 'hourly' used in <AccessLogger> for <Host> 'localhost'", 6},
            {inHost("<Accesslogger fileName=\"a.log\"/>\n"),
             "The directory attribute in <Accesslogger> is not defined", 6},
            {inHost("<Logger directory=\"logs\"/>\n"),
             "The fileName attribute in <Logger> is not defined", 6},
            {inHost("<Logger directory=\"nowhere\" fileName=\"a.log\"/>\n"),
             "The directory '" + home.path() +
                 "/nowhere' specified in the directory attribute in <Logger> does not exist or "
                 "cannot be resolved",
             6},
            {inEngine("<Errorlogger directory=\"logs\"/>\n"),
             "The fileName attribute in <Errorlogger> is not defined", 5},
        };
        for (const Fault& f : faults)
                EXPECT_EQ(parse(f.xml), at(f.reason, f.line)) << f.xml;
}

TEST_F(BuildTest, HostNamesWithCapitalsAreNotFoundAgain) {
        std::string xml = inEngine(
            "<Host name=\"LocalHost\" appBase=\"webapps\">\n"
            "<Logger directory=\"logs\" fileName=\"a.log\"/>\n"
            "</Host>\n");
        EXPECT_EQ(parse(xml), at("<Host> 'LocalHost' not defined", 6));
        xml = inEngine(
            "<Host name=\"LocalHost\" appBase=\"webapps\">\n"
            "<Context path=\"\" docBase=\"ROOT\"/>\n"
            "</Host>\n");
        EXPECT_EQ(parse(xml), at("Host 'LocalHost' not found", 6));
        xml = inEngine(
            "<Host name=\"LocalHost\" appBase=\"webapps\">\n"
            "<Accesslogger directory=\"logs\" fileName=\"a.log\"/>\n"
            "</Host>\n");
        EXPECT_EQ(parse(xml), at("Host 'LocalHost' not defined", 6));
        // The default host is resolved after the document, with no file or line.
        xml =
            "<Server>\n<License owner=\"a\"/>\n<Service>\n"
            "<Engine defaultHost=\"LocalHost\">\n"
            "<Host name=\"LocalHost\" appBase=\"webapps\"/>\n"
            "</Engine>\n</Service>\n</Server>\n";
        EXPECT_EQ(parse(xml), "Unknown Default Host 'LocalHost'");
}

TEST_F(BuildTest, RealmFaults) {
        EXPECT_EQ(parse(inEngine("<Realm url=\"no url\"/>\n")),
                  at("Invalid URL 'no url' in <Realm>", 5));
        EXPECT_EQ(parse(inEngine("<Realm/>\n")), at("Invalid URL '' in <Realm>", 5));
        EXPECT_EQ(parse(inEngine("<Realm url=\"mysql://db/users\"/>\n")),
                  at("Database protocol 'mysql' not supported in <Realm>", 5));
        EXPECT_EQ(parse(inEngine("<Realm url=\"sqlite:///data/users.db\"/>\n")),
                  at("Realm database '" + home.path() + "/data/users.db' does not exist", 5));
}

TEST_F(BuildTest, AMissingControlFileFailsAtLineZero) {
        std::string missing = home / "conf/none.xml";
        std::string message =
            assertion([&] { B = Build_parse(home.path().c_str(), missing.c_str()); });
        EXPECT_NE(message.find(" -- in '" + missing + "' near line 0"), std::string::npos)
            << message;
        EXPECT_EQ(assertion([] { Build_parse(nullptr, "x"); }), "containerHome");
        EXPECT_EQ(assertion([] { Build_parse("x", nullptr); }), "server_xml");
}

TEST_F(BuildTest, StartChecksTheDefaults) {
        // No <Service> at all parses, and fails only when started.
        ASSERT_EQ(parse("<Server>\n<License owner=\"a\"/>\n</Server>\n"), "");
        EXPECT_EQ(assertion([&] { Build_start(B); }), "Default host is not defined");
        EXPECT_EQ(assertion([&] { Build_defaultHost(B); }), "The Default Host is not defined");

        mkdir((home / "bare").c_str(), 0755);
        std::string xml = inEngine("<Host name=\"localhost\" appBase=\"bare\"/>\n");
        ASSERT_EQ(parse(xml), "");
        EXPECT_EQ(
            assertion([&] { Build_start(B); }),
            "Default ROOT appBase '" + real + "/bare/ROOT' for the default Context does not exist");
}

namespace {

void stopFromTheLoop(Timer_T timer) {
        Build_stop(static_cast<Build_T>(Timer_getData(timer)));
}

}  // namespace

TEST_F(BuildTest, StartServesUntilStopped) {
        ASSERT_EQ(parse(inEngine("<Host name=\"localhost\" appBase=\"webapps\"/>\n")), "");
        Host_T host = Build_defaultHost(B);
        EXPECT_EQ(Host_getDefaultContext(host), nullptr);
        Reactor_T reactor = Reactor_getInstance();
        Timer_T timer = Reactor_createTimer(reactor);
        Timer_setData(timer, B);
        Timer_setHandler(timer, stopFromTheLoop);
        Reactor_scheduleTimer(reactor, timer, 1, 0);
        EXPECT_EQ(raised([&] { Build_start(B); }), "");
        // The default host got a root application from appBase/ROOT.
        ASSERT_TRUE(Host_getDefaultContext(host));
        EXPECT_EQ(std::string(Context_getDocBase(Host_getDefaultContext(host))),
                  real + "/webapps/ROOT");
}

TEST_F(BuildTest, DefaultDescriptorGivesMimeTypesAndWelcomeFiles) {
        home.write("conf/web.xml",
                   "<?xml version=\"1.0\"?>\n"
                   "<web-app>\n"
                   "<display-name>Defaults</display-name>\n"
                   "<servlet><servlet-name>x</servlet-name></servlet>\n"
                   "<mime-mapping><extension>HTML</extension><mime-type>Text/HTML</mime-type>"
                   "</mime-mapping>\n"
                   "<mime-mapping><mime-type>image/png</mime-type><extension>png</extension>"
                   "</mime-mapping>\n"
                   "<mime-mapping><extension>orphan</extension></mime-mapping>\n"
                   "<welcome-file-list>\n"
                   "<welcome-file>Index.HTML</welcome-file>\n"
                   "<welcome-file>docs/index.csp</welcome-file>\n"
                   "</welcome-file-list>\n"
                   "</web-app>\n");
        ASSERT_EQ(parse(inHost("")), "");
        EXPECT_STREQ(Config_getMimeType("/a/b/page.html"), "text/html");
        EXPECT_STREQ(Config_getMimeType("logo.png"), "image/png");
        // Keys are lowered, paths are not: a capital extension finds nothing.
        EXPECT_EQ(Config_getMimeType("PAGE.HTML"), nullptr);
        EXPECT_EQ(Config_getMimeType("README"), nullptr);
        EXPECT_EQ(Config_getMimeType("x.orphan"), nullptr);
        std::vector<std::string> files;
        for (list_t p = Config_getWelcomeFiles()->head; p; p = p->next)
                files.push_back(static_cast<const char*>(p->e));
        EXPECT_EQ(files, (std::vector<std::string>{"index.html", "index.csp"}));
}

TEST_F(BuildTest, DefaultDescriptorFaults) {
        struct Case {
                std::string xml;
                std::string reason;
                int line;
        };
        const std::vector<Case> cases = {
            {"<webapp/>\n", "XML parse error -- invalid element <webapp>", 1},
            {"<web-app>\n<mime-mapping>\n<suffix>x</suffix>\n",
             "XML parse error -- invalid element <suffix>", 3},
            {"<web-app>\n<welcome-file-list>\n<file>x</file>\n",
             "XML parse error -- invalid element <file>", 3},
            {"<web-app>\n<mime-mapping>\n</welcome-file-list>\n",
             "XML parse error -- invalid element </welcome-file-list>", 3},
            {"<web-app>\n<welcome-file-list>\n</mime-mapping>\n",
             "XML parse error -- invalid element </mime-mapping>", 3},
            {"<web-app>\n<servlet/>\n",
             "Parse error at line [3] near \"eof\" -- syntax error, unexpected $end, expecting "
             "CLOSE_TAG",
             3},
        };
        std::string file = home / "conf/web.xml";
        for (const Case& c : cases) {
                home.write("conf/web.xml", c.xml);
                EXPECT_EQ(parse(inHost("")),
                          c.reason + " in '" + file + "' at line " + std::to_string(c.line))
                    << c.xml;
        }
        Config_init();
        EXPECT_EQ(assertion([] { Config_parseDeploy("/no/such/web.xml"); }),
                  "Could not read the default deployment descriptor '/no/such/web.xml'");
        Config_destroy();
}

#ifdef VESK_LAUNCHER
TEST_F(BuildTest, LauncherReportsAConfigurationFaultWithFileAndLine) {
        home.write("conf/server.xml", inService("<Connector port=\"eighty\"/>\n"));
        std::string expected =
            "vesk: " +
            at("The value 'eighty' given in <Connector> attribute 'port' is not a number", 4) +
            "\n";
        // In the foreground, and as a daemon, which checks before it leaves the terminal.
        for (const char* mode : {"-f start", "start"}) {
                std::string command =
                    std::string(VESK_LAUNCHER) + " -H '" + home.path() + "' " + mode + " 2>&1";
                FILE* out = popen(command.c_str(), "r");
                ASSERT_TRUE(out);
                std::string text;
                char buffer[512];
                while (size_t n = fread(buffer, 1, sizeof buffer, out))
                        text.append(buffer, n);
                int status = pclose(out);
                EXPECT_EQ(text, expected) << mode;
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << mode;
        }
        EXPECT_NE(access((home / "logs/Vesk.pid").c_str(), F_OK), 0);
}
#endif
