#include "templateProcessor/templateProcessor.h"

#include <gtest/gtest.h>

using templateProcessor::process;

TEST(TemplateProcessor, VariablesAreEscapedUnlessRawAndUnknownOnesStay) {
    EXPECT_EQ(process("<h1>{%CHANNEL-NAME%}</h1>{%RAW:BODY%} {%OTHER%} {% x",
                      {{"CHANNEL-NAME", "A & <script>"}, {"BODY", "<b>ok</b>"}}),
              "<h1>A &amp; &lt;script&gt;</h1><b>ok</b> {%OTHER%} {% x");
    EXPECT_EQ(process("\"{%Q%}\"", {{"Q", "\"'"}}), "\"&quot;&#39;\"");
}

TEST(TemplateProcessor, RepeatBlocksRunOncePerRowWithRowValuesFirst) {
    const std::string page = "<ul>{%REPEAT%}<li>{%ITEM-TITLE%} of {%CHANNEL-NAME%}</li>"
                             "{%/REPEAT%}</ul>{%ITEM-TITLE%}";
    EXPECT_EQ(
        process(page, {{"CHANNEL-NAME", "News"}}, {{{"ITEM-TITLE", "a"}}, {{"ITEM-TITLE", "b<"}}}),
        "<ul><li>a of News</li><li>b&lt; of News</li></ul>{%ITEM-TITLE%}");
    EXPECT_EQ(process("x{%REPEAT%}y{%/REPEAT%}z", {}), "xz");
}

TEST(TemplateProcessor, UnbalancedBlocksAreClearErrors) {
    EXPECT_THROW(process("a {%REPEAT%} b", {}), templateProcessor::Exception);
    EXPECT_THROW(process("a {%/REPEAT%} b", {}), templateProcessor::Exception);
    try {
        process("{%REPEAT%}{%REPEAT%}{%/REPEAT%}", {});
        FAIL();
    } catch (const templateProcessor::Exception& failure) {
        EXPECT_STREQ(failure.what(), "Template error: {%REPEAT%} blocks do not nest at offset 10");
    }
}
