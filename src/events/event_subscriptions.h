#pragma once
// The body of every public Advise...Events and Unadvise...Events method: the checks, the notify
// client around the sink, and the registration in the private client under `key` (a target's
// handle, or kNoTarget for the server's own events).

#include <cstdint>
#include <utility>

#include "api/error_reporting.h"
#include "api/server_call.h"
#include "events/notify_clients.h"

namespace qv {

template <EventGroup kGroup, class Sink>
HRESULT AdviseEvents(const SharedClient& client, uint32_t key, Sink* sink,
                     REFIID sink_interface) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if (sink == nullptr) return ReportError(E_POINTER);
  // The sink may have been handed over through another of its interfaces.
  vekx::ComPtr<Sink> typed;
  if (HRESULT hr = sink->QueryInterface(sink_interface, reinterpret_cast<void**>(typed.Put()));
      FAILED(hr)) {
    return ReportError(hr);
  }
  auto notify_client = EventNotifyClient<kGroup, Sink>::Make(client, typed.Get());
  if (notify_client == nullptr) return ReportError(E_OUTOFMEMORY);
  return ReportError(client->Advise(kGroup, std::move(notify_client), key));
}

template <EventGroup kGroup, class Sink>
HRESULT UnadviseEvents(const SharedClient& client, uint32_t key, Sink* sink) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if (sink == nullptr) return ReportError(E_POINTER);
  // Only to find the registration by the sink's identity; never filed.
  const EventNotifyClient<kGroup, Sink> probe(client, sink);
  return ReportError(client->Unadvise(kGroup, probe, key));
}

}  // namespace qv
