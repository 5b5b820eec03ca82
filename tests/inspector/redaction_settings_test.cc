#include "kestro/inspector/redaction_settings.h"

#include <gtest/gtest.h>

namespace kestro {
namespace {

using List = RedactionSettings::List;
using Names = std::vector<std::string>;

class RedactionSettingsTest : public testing::Test {
  protected:
    RedactionSettingsTest()
        : settings_(initial(), [this](const RedactionPolicy& p) { applied_.push_back(p); }) {}
    static RedactionPolicy initial() {
        RedactionPolicy p;
        p.headers = {"Authorization", "cookie"};
        p.dropBodiesNotJSON = {"uploads.test/*"};
        return p;
    }
    bool add(List list, std::string text) {
        settings_.draft(list) = std::move(text);
        return settings_.add(list);
    }

    std::vector<RedactionPolicy> applied_;
    RedactionSettings settings_;
};

TEST_F(RedactionSettingsTest, EntriesAreCheckedThenAppliedAtOnceWithTheRestOfThePolicy) {
    struct Case {
        List list;
        std::string typed;
        bool added;
        std::string message;  // what the form says when it was not added
    };
    const std::vector<Case> cases = {
        {List::headers, "  X-Session-Token\t", true, ""},
        {List::headers, "AUTHORIZATION", false, "\"authorization\" is already listed"},
        {List::headers, "x-session-token", false, "\"x-session-token\" is already listed"},
        {List::headers, "my header", false,
         "\"my header\" is not a header name (letters, digits and !#$%&'*+-.^_`|~)"},
        {List::headers, "x:y", false,
         "\"x:y\" is not a header name (letters, digits and !#$%&'*+-.^_`|~)"},
        {List::headers, "   ", false, ""},
        {List::queryItems, "token", true, ""},
        {List::queryItems, "Token", true, ""},  // query items match exactly
        {List::queryItems, "token", false, "\"token\" is already listed"},
        {List::jsonKeys, "password", true, ""},
        {List::jsonKeys, "pass word", true, ""},  // any text can be a JSON key
        {List::notCaptured, "*.ads.test/*", true, ""},
    };
    std::size_t applications = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.typed);
        EXPECT_EQ(add(c.list, c.typed), c.added);
        EXPECT_EQ(settings_.message(c.list), c.message);
        if (c.added) {
            ++applications;
            EXPECT_TRUE(settings_.draft(c.list).empty());
        } else if (!c.message.empty()) {
            EXPECT_EQ(settings_.draft(c.list), c.typed) << "kept for correcting";
        }
        ASSERT_EQ(applied_.size(), applications);
    }
    const RedactionPolicy& last = applied_.back();
    EXPECT_TRUE(last.enabled);
    EXPECT_EQ(last.headers, (Names{"Authorization", "cookie", "x-session-token"}));
    EXPECT_EQ(last.queryItems, (Names{"token", "Token"}));
    EXPECT_EQ(last.jsonKeys, (Names{"password", "pass word"}));
    EXPECT_EQ(last.notCaptured, (Names{"*.ads.test/*"}));
    EXPECT_EQ(last.dropBodiesNotJSON, (Names{"uploads.test/*"}));
    EXPECT_EQ(last, settings_.policy());
}

TEST_F(RedactionSettingsTest, RemovingAndSwitchingOffKeepTheLists) {
    add(List::headers, "x");  // leaves a message behind
    add(List::headers, "x");
    ASSERT_FALSE(settings_.message(List::headers).empty());
    applied_.clear();

    settings_.remove(List::headers, 0);
    EXPECT_TRUE(settings_.message(List::headers).empty());
    settings_.remove(List::headers, 5);  // no such row: nothing changes
    ASSERT_EQ(applied_.size(), 1u);
    EXPECT_EQ(applied_[0].headers, (Names{"cookie", "x"}));

    settings_.setEnabled(false);
    ASSERT_EQ(applied_.size(), 2u);
    EXPECT_FALSE(applied_[1].enabled);
    EXPECT_EQ(applied_[1].headers, (Names{"cookie", "x"}));
    settings_.setEnabled(true);
    EXPECT_TRUE(applied_.back().enabled);
}

}  // namespace
}  // namespace kestro
