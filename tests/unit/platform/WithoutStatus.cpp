// A platform that shows nothing: these three are all that status.h asks of it.
#include "platform/status.h"

void status::Row::Show(std::uint32_t, const void*, std::size_t) {}
void status::Row::Withdraw() {}
status::Number::Number(const char* name, std::uint64_t value) : m_name(name), m_value(value) {}

namespace {
status::Number g_number("number");
}

int main() {
    status::Row row;
    row.Show(status::KIND_OF_OWNERS, 5);
    row.Withdraw();
    g_number.Add();
    g_number.Set(7);
    return 0;
}
