// Services: handles closed by the event log's teardown hook.
#pragma once

namespace ll::svc {
void teardown() noexcept;
}  // namespace ll::svc
