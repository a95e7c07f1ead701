// The command line: each command's options, values inline or apart, and every usage
// error.
#include <gtest/gtest.h>

#include "cli/args.h"

namespace {

using fsic::cli::options;
using fsic::cli::parse_args;

options parse_ok(const std::vector<std::string> &args) {
  options o;
  std::string message;
  EXPECT_TRUE(parse_args(args, &o, &message)) << message;
  return o;
}

std::string parse_error(const std::vector<std::string> &args) {
  options o;
  std::string message;
  EXPECT_FALSE(parse_args(args, &o, &message));
  return message;
}

TEST(Args, EveryCommandTakesItsOptions) {
  options o = parse_ok({"init", "--policy", "p", "--db=d", "--key", "k", "--force"});
  EXPECT_EQ(o.command, "init");
  EXPECT_EQ(o.policy, "p");
  EXPECT_EQ(o.db, "d");
  EXPECT_EQ(o.key, "k");
  EXPECT_TRUE(o.force);
  o = parse_ok({"update", "--db", "d", "--accept", "/a", "--accept=/b", "--volume", "part:S:1",
                "--json", "-q", "--no-progress"});
  EXPECT_EQ(o.accept, (std::vector<std::string>{"/a", "/b"}));
  EXPECT_EQ(o.volumes, std::vector<std::string>{"part:S:1"});
  EXPECT_TRUE(o.json);
  EXPECT_TRUE(o.quiet);
  EXPECT_EQ(o.progress, 0);
  o = parse_ok({"compare", "old", "new", "--progress"});
  EXPECT_EQ(o.operands, (std::vector<std::string>{"old", "new"}));
  EXPECT_EQ(o.progress, 1);
  o = parse_ok({"volumes", "--all", "--json"});
  EXPECT_TRUE(o.all);
  o = parse_ok({"check", "--db", "d"});
  EXPECT_EQ(o.progress, -1);
  EXPECT_FALSE(o.json);
  o = parse_ok({"show", "--db", "d", "--key", "k"});
  EXPECT_EQ(o.command, "show");
  o = parse_ok({"keygen", "--key", "k"});
  EXPECT_EQ(o.key, "k");
  o = parse_ok({"compare", "--", "-old", "new"});
  EXPECT_EQ(o.operands, (std::vector<std::string>{"-old", "new"}));
}

TEST(Args, FilesNotGivenAreTheDefaultOnes) {
  options o = parse_ok({"init"});
  EXPECT_EQ(o.policy, FSIC_DEFAULT_POLICY);
  EXPECT_EQ(o.db, FSIC_DEFAULT_DB);
  EXPECT_EQ(o.key, FSIC_DEFAULT_KEY);
  EXPECT_TRUE(o.key_is_default);
  o = parse_ok({"check", "--key", "k"});
  EXPECT_EQ(o.db, FSIC_DEFAULT_DB);
  EXPECT_EQ(o.key, "k");
  EXPECT_FALSE(o.key_is_default);
  EXPECT_TRUE(o.policy.empty()); // check takes no policy
  o = parse_ok({"show", "--db", "d", "--no-key"});
  EXPECT_EQ(o.db, "d");
  EXPECT_TRUE(o.key.empty());
  EXPECT_TRUE(o.no_key);
  o = parse_ok({"compare", "a", "b"});
  EXPECT_TRUE(o.db.empty()); // compare names its databases
  EXPECT_EQ(o.key, FSIC_DEFAULT_KEY);
  o = parse_ok({"keygen"});
  EXPECT_EQ(o.key, FSIC_DEFAULT_KEY);
  o = parse_ok({"volumes"});
  EXPECT_TRUE(o.db.empty() && o.key.empty() && o.policy.empty());
  // The defaults are absolute paths.
  EXPECT_EQ(std::string(FSIC_DEFAULT_DB).front(), '/');
}

TEST(Args, VersionAndHelp) {
  EXPECT_TRUE(parse_ok({"--version"}).version);
  EXPECT_TRUE(parse_ok({"--help"}).help);
  options o = parse_ok({"check", "--help"});
  EXPECT_TRUE(o.help);
  EXPECT_EQ(o.command, "check");
  // A command's help needs none of its required options.
  EXPECT_TRUE(parse_ok({"init", "--help"}).help);
  EXPECT_NE(fsic::cli::usage_text("check").find("fsic check [--db FILE]"), std::string::npos);
  EXPECT_NE(fsic::cli::usage_text("").find("fsic keygen [--key FILE]"), std::string::npos);
  EXPECT_NE(fsic::cli::usage_text("init").find("--policy " FSIC_DEFAULT_POLICY), std::string::npos);
}

TEST(Args, UsageErrorsSayWhatIsWrong) {
  EXPECT_EQ(parse_error({}), "no command given (try fsic --help)");
  EXPECT_EQ(parse_error({"frobnicate"}), "unknown command \"frobnicate\" (try fsic --help)");
  EXPECT_EQ(parse_error({"--version", "x"}), "--version takes nothing after it");
  EXPECT_EQ(parse_error({"check", "--db"}), "--db needs a value");
  EXPECT_EQ(parse_error({"check", "--db="}), "--db needs a value that is not empty");
  EXPECT_EQ(parse_error({"check", "--db", "d", "--force"}),
            "fsic check has no option --force (try fsic check --help)");
  EXPECT_EQ(parse_error({"check", "--db", "d", "--accept", "/a"}),
            "fsic check has no option --accept (try fsic check --help)");
  EXPECT_EQ(parse_error({"check", "--db", "d", "--json=yes"}), "--json takes no value");
  EXPECT_EQ(parse_error({"check", "--db", "d", "extra"}), "fsic check takes no argument \"extra\"");
  EXPECT_EQ(parse_error({"compare", "a"}), "fsic compare takes 2 database files");
  EXPECT_EQ(parse_error({"compare", "a", "b", "c"}), "fsic compare takes 2 database files");
  EXPECT_EQ(parse_error({"check", "--key", "k", "--no-key"}),
            "--key and --no-key exclude each other");
  EXPECT_EQ(parse_error({"keygen", "--no-key"}),
            "fsic keygen has no option --no-key (try fsic keygen --help)");
  EXPECT_EQ(parse_error({"volumes", "-x"}),
            "fsic volumes has no option -x (try fsic volumes --help)");
}

} // namespace
