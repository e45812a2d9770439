// The module as the framework drives it: start and stop, policy documents good and hostile, and
// what each container start and exit asks the neighbours to watch.

#include <tuple>

#include "ModuleFixture.h"
#include "framework/TaskRegistry.h"

namespace DockerFileTest {
namespace {

class ModuleTest : public ModuleFixture {
protected:
    /// A container of the image started now, root "/w": the paths it got watches for.
    Strings StartAndWatch(const std::string& imageId, const std::string& imageName = "") {
        Logs().Clear();
        const std::string id = "probe" + std::to_string(++probes_);
        Container(id, id, imageId, imageName, "/w");
        return Watched();
    }
    int probes_ = 0;
};

// The task is registered, and subscribes, before the module says it started; the same again
// once the module was stopped and loaded anew.
TEST_F(ModuleTest, InitSubscribesToContainersThenLogs) {
    const Strings expected = {"to container_collect_task: subscribe",
                              "root I Docker file module init"};
    EXPECT_EQ(expected, Timeline());
    module.Stop();
    Logs().Clear();
    Load();
    EXPECT_EQ(expected, Timeline());
}

TEST_F(ModuleTest, EveryDocumentBecomesTheTasksPolicyAndIsLoggedWhole) {
    const std::string text =
        R"({"feature_name":"dockerfile_feature","hash":"abc123","policy_id":"pol-7",)"
        R"("enabled":false,"content":{"rules":[{"image_id":"sha256:1",)"
        R"("protect_files":["/etc/passwd"]},{"image_name":"web","fuzzy_match":true}]}})";
    Logs().Clear();
    Policy(text);
    EXPECT_EQ((Strings{"I Docker file module parse policy: name(dockerfile_feature),hash(abc123),"
                       "id(pol-7),enable(0)",
                       "D Docker file insert  id rules list: id(sha256:1), filesNum(1), "
                       "elfForbidden(0)",
                       "D Docker file module insert name rules list: name(web), fuzzyMatch(1), "
                       "filesNum(0), elfForbidden(0)",
                       "I Docker file module refresh policy: " + text}),
              Timeline());
    // "enabled" is not consulted: a disabled policy protects all the same.
    EXPECT_EQ(Strings{"/w/etc/passwd"}, StartAndWatch("sha256:1"));

    // The next document is a new policy, and the one it replaces is marked outdated.
    const auto first = task->GetFeaturePolicy();
    Policy(Doc(""));
    EXPECT_TRUE(first->IsOutdated());
    EXPECT_NE(first, task->GetFeaturePolicy());
    EXPECT_FALSE(task->GetFeaturePolicy()->IsOutdated());
}

// A document that names no task is logged whole and leaves the policy in force as it was.
TEST_F(ModuleTest, UnusableDocumentsLeaveThePolicyInForce) {
    Policy(Doc(R"({"image_id":"sha256:a","protect_files":["/a"]})"));
    // JSON itself is the utility library's to check; one of each way the module meets it.
    for (const std::string& doc :
         {std::string(), std::string("[]"), std::string("{}"), std::string(R"({"content":"{}"})"),
          std::string(200000, '[') + std::string(200000, ']')}) {
        SCOPED_TRACE(doc.substr(0, 40));
        Logs().Clear();
        Deliver(doc);
        EXPECT_EQ(1u, Logs().Find("Docker file module refresh policy: " + doc).size());
        EXPECT_TRUE(Logs().Find("Docker file module parse policy", true).empty());
        EXPECT_EQ(Strings{"/w/a"}, StartAndWatch("sha256:a"));
    }
}

// Format directives and control bytes in names and paths are data, never formatting: carried
// as written, and only escaped in the log.
TEST_F(ModuleTest, FormatLikeAndOddTextIsCarriedVerbatim) {
    const std::string bigName(1 << 20, 'n');
    Policy(Doc(R"({"image_id":"%s%n","elf_forbidden":true,
                   "protect_files":["/%s%d%n%lu%%\n\t\"'\\"]},{"image_name":")" +
               bigName + R"(","protect_files":["/big"]})"));
    Logs().Clear();
    Container("%n%s", "%s%s%s", "%s%n", "%d", "/r%s");
    EXPECT_EQ(Strings{"/r%s/%s%d%n%lu%%\n\t\"'\\"}, Watched());
    ASSERT_EQ(1u, Sent<Engine::AuditFileSystemCtrlMessage>().size());
    EXPECT_EQ("cid:%n%s", Sent<Engine::AuditFileSystemCtrlMessage>()[0]->ruleKey);
    EXPECT_EQ(1u, Logs().Find(R"(Docker file add notify: /r%s/%s%d%n%lu%%\n\t"'\)").size());
    EXPECT_EQ(Strings{"/w/big"}, StartAndWatch("x", bigName));
}

// ---- container start and exit ----

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";
const std::string kMasks = " 100 2 200 c0 4 400 800";

TEST_F(ModuleTest, ProtectedStartRequestsOneWatchPerFileThenTheAuditRule) {
    Policy(Doc(R"({"image_id":"sha256:aa","elf_forbidden":true,
                   "protect_files":["/etc/passwd","/etc/shadow","/usr/bin/x"]})"));
    Logs().Clear();
    Container("c1", "web", "sha256:aa", "nginx:1", kRoot);
    EXPECT_EQ((Strings{"D Docker file module receive docker start message. docker(web),"
                       "cmd(/bin/sh -c run-web),image(nginx:1)",
                       "D Docker file match image by id: name(nginx:1), id(sha256:aa)",
                       "D Docker file add docker cache, index=0, name=web.",
                       "D Docker file add notify: " + kRoot + "/etc/passwd",
                       "to filenotify_task: add " + kRoot + "/etc/passwd" + kMasks + " ext 0",
                       "D Docker file add notify: " + kRoot + "/etc/shadow",
                       "to filenotify_task: add " + kRoot + "/etc/shadow" + kMasks + " ext 0",
                       "D Docker file add notify: " + kRoot + "/usr/bin/x",
                       "to filenotify_task: add " + kRoot + "/usr/bin/x" + kMasks + " ext 0",
                       "D Docker file rootFs monitor add audit rule, container(web), "
                       "image(nginx:1)",
                       "to audit_task: -w cid:c1 " + kRoot + " -p wa"}),
              Timeline());
}

// Without a policy a start is an error. An exit finds nothing to withdraw when the start was
// not cached: a policy arriving meanwhile applies from the next start on, and an image no rule
// names is not cached.
TEST_F(ModuleTest, StartWithoutPolicyOrRuleIsNotCached) {
    Logs().Clear();
    Container("c1", "web", "sha256:1", "img:1", "/r");
    EXPECT_EQ((Strings{"D Docker file module receive docker start message. docker(web),"
                       "cmd(/bin/sh -c run-web),image(img:1)",
                       "E Docker file task get feature policy failed."}),
              Timeline());
    Policy(Doc(R"({"image_id":"sha256:1","protect_files":["/a"]},
                  {"image_name":"redis","protect_files":["/b"],"elf_forbidden":true})"));
    Logs().Clear();
    Container("c1", "web", "sha256:1", "img:1", "/r", false);
    Container("c2", "db", "sha256:2", "redis:7", "/r");
    Container("c2", "db", "sha256:2", "redis:7", "/r", false);
    EXPECT_EQ((Strings{"D Docker file module receive docker exit message. docker(web), "
                       "cmd(/bin/sh -c run-web),image(img:1)",
                       "W Docker file task do not find containre cache.",
                       "D Docker file module receive docker start message. docker(db),"
                       "cmd(/bin/sh -c run-db),image(redis:7)",
                       "D Docker file module receive docker exit message. docker(db), "
                       "cmd(/bin/sh -c run-db),image(redis:7)",
                       "W Docker file task do not find containre cache."}),
              Timeline());
}

// Root and entry are joined as they stand, slashes and empty ones included; a rule without files
// still gets the audit rule.
TEST_F(ModuleTest, RequestsCarryRootEntryAndIdAsTheyAre) {
    // container id, root, protected files, the paths watched, the audit rule
    const std::vector<std::tuple<std::string, std::string, std::string, Strings, std::string>>
        rows = {
            {"c1",
             "/srv/c1/",
             R"("/etc/passwd","etc/hosts","/etc/passwd")",
             {"/srv/c1//etc/passwd", "/srv/c1/etc/hosts", "/srv/c1//etc/passwd"},
             "-w cid:c1 /srv/c1/ -p wa"},
            {"", "", R"("/a")", {"/a"}, "-w cid:  -p wa"},
            {"c3", "/r", "", {}, "-w cid:c3 /r -p wa"},
            {"c4", "/r", R"("etc/hosts")", {"/retc/hosts"}, "-w cid:c4 /r -p wa"},
        };
    for (const auto& [id, root, files, watched, audit] : rows) {
        SCOPED_TRACE("root " + root);
        Policy(Doc(R"({"image_id":"sha256:aa","elf_forbidden":true,"protect_files":[)" + files +
                   "]}"));
        Logs().Clear();
        Container(id, "web", "sha256:aa", "img", root);
        EXPECT_EQ(watched, Watched());
        const auto rules = Sent<Engine::AuditFileSystemCtrlMessage>();
        ASSERT_EQ(1u, rules.size());
        EXPECT_EQ(audit, Describe(rules[0].get(), task));
        Container(id, "web", "sha256:aa", "img", root, false);
    }
}

// Indexes count up and are never handed out again; a second start of a cached container is
// refused without using one, and its exit withdraws what was set up for the cached record.
// Nothing is sent for a start that no rule protects.
TEST_F(ModuleTest, CacheIndexesAndTheCachedRecordDecide) {
    Policy(Doc(R"({"image_name":"app","fuzzy_match":true,"elf_forbidden":true,
                   "protect_files":["/f","/g"]})"));
    const auto lastIndex = [this] {
        const auto w = Sent<Engine::FileNotifyWatchMessage>();
        return w.empty() ? UINT64_MAX : w.back()->options.extParm;
    };
    Container("a", "a", "", "myapp", "/ra");
    EXPECT_EQ(0u, lastIndex());
    Container("b", "b", "", "myapp", "/rb");
    EXPECT_EQ(1u, lastIndex());
    Logs().Clear();
    Container("b", "second", "", "myapp:2", "/elsewhere");
    EXPECT_EQ((Strings{"D Docker file module receive docker start message. docker(second),"
                       "cmd(/bin/sh -c run-second),image(myapp:2)",
                       "D Docker file match image by fuzzy name: name(myapp:2), id()",
                       "W Docker file task insert exist docker cache. name:second, image:myapp:2"}),
              Timeline());
    Container("a", "a", "", "myapp", "/ra", false);
    EXPECT_EQ(1u, Logs().Find("Docker file delete docker cache, index=0, name=a.").size());
    Container("c", "c", "", "myapp", "/rc");
    EXPECT_EQ(2u, lastIndex());
    Container("a", "a", "", "myapp", "/ra");
    EXPECT_EQ(3u, lastIndex()) << "a container that comes back gets a new index";

    // A cached container keeps the rule it started with: a policy protecting nothing changes
    // neither its alarms nor what its exit withdraws, only what a later start gets.
    Policy(R"({"content":{}})");
    Logs().Clear();
    Send(new Engine::FileNotifyMessage("/rb/g", 0x200, 1));
    EXPECT_EQ("/g 3", Alarm(1)["file_info"][0]["file_path"].asString() + " " +
                          Alarm(1)["file_info"][0]["file_operation"].asString());
    Logs().Clear();
    Container("b", "renamed", "", "other", "/changed", false);
    EXPECT_EQ((Strings{"D Docker file module receive docker exit message. docker(renamed), "
                       "cmd(/bin/sh -c run-renamed),image(other)",
                       "D Docker file delete notify: /rb/f", "to filenotify_task: remove /rb/f",
                       "D Docker file delete notify: /rb/g", "to filenotify_task: remove /rb/g",
                       "D Docker file rootFs monitor delete audit rule, container(b), "
                       "image(myapp)",
                       "to audit_task: -W cid:b /rb -p wa",
                       "D Docker file delete docker cache, index=1, name=b."}),
              Timeline());
    Logs().Clear();
    Container("b", "b", "", "myapp", "/rb", false);
    Container("d", "d", "", "myapp", "/rd");
    EXPECT_TRUE(Sent<Framework::Message>().empty()) << "a second exit finds nothing";
}

// Every cached container is torn down in id order, but not through the per-container removal
// and its log line; the task and the policy hook are gone afterwards.
TEST_F(ModuleTest, UnInitTearsDownEveryCachedContainerInIdOrder) {
    Policy(Doc(R"({"image_id":"img-b","elf_forbidden":true,"protect_files":["/x","/y"]},
                  {"image_id":"img-a","elf_forbidden":true,"protect_files":["/z"]},
                  {"image_id":"img-c","protect_files":["/w"]})"));
    Container("bbb", "b", "img-b", "b", "/rb");
    Container("aaa", "a", "img-a", "a", "/ra");
    Container("ccc", "c", "img-c", "c", "/rc");
    Logs().Clear();
    module.Get()->UnInit();
    EXPECT_EQ((Strings{"root I Docker file module exit", "to container_collect_task: unsubscribe",
                       "D Docker file module exit clear docker cache",
                       "D Docker file delete notify: /ra/z", "to filenotify_task: remove /ra/z",
                       "D Docker file rootFs monitor delete audit rule, container(a), image(a)",
                       "to audit_task: -W cid:aaa /ra -p wa", "D Docker file delete notify: /rb/x",
                       "to filenotify_task: remove /rb/x", "D Docker file delete notify: /rb/y",
                       "to filenotify_task: remove /rb/y",
                       "D Docker file rootFs monitor delete audit rule, container(b), image(b)",
                       "to audit_task: -W cid:bbb /rb -p wa", "D Docker file delete notify: /rc/w",
                       "to filenotify_task: remove /rc/w", "to audit_task: unsubscribe"}),
              Timeline());
    EXPECT_FALSE(Framework::TaskRegistry::Instance().Has(kModuleTask));
    EXPECT_EQ(-1, Deliver(Doc(""))) << "the policy key is withdrawn at UnInit";
}

}  // namespace
}  // namespace DockerFileTest
