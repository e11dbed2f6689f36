#include "kes_event.h"

#include <gtest/gtest.h>

#include <string>

using namespace kes;

namespace {

std::string g_calls;

void first(const kesEvent& i_event)
{
    g_calls += "a" + std::to_string(i_event.code) + ";";
}

void second(const kesEvent& i_event)
{
    g_calls += "b" + std::to_string(*static_cast<int*>(i_event.data)) + ";";
}

TEST(EventDispatcher, ListenersRunInOrderOfRegistrationPerCode)
{
    struct Row {
        int code;
        const char* calls;
    };
    kesEventDispatcher dispatcher;
    dispatcher.AddListener(1, &first);
    dispatcher.AddListener(1, &second);
    dispatcher.AddListener(1, &first); // twice: called twice
    dispatcher.AddListener(65535, &second);
    const Row rows[] = {
        {1, "a1;b42;a1;"},
        {65535, "b42;"},
        {4, ""},     // a device type nobody listens to
        {65534, ""}, // an unknown code
    };
    int data = 42;
    for (const Row& row : rows) {
        g_calls.clear();
        kesEvent event = {7, row.code, &data};
        dispatcher.DispatchEvent(event);
        EXPECT_EQ(row.calls, g_calls) << row.code;
    }
}

} // namespace
