// Wrappers around the filesystem libraries' entry points: one set per slot
// of the library table, made by a template, since an entry point is a plain
// C function pointer that cannot carry which library it belongs to.
#include "unixmdc/library_timing.h"

#include <array>
#include <utility>

#include "sp/fsmdcsp.h"
#include "sp/sp_state.h"
#include "utils/kxstats.h"

namespace kestrix {

namespace {

// The original entry points of each slot, fixed before the first request.
std::array<FsLibrary, FSMDCSP_MAX_LIBS> s_original{};

template <int Slot, auto Member, int Entry, typename Fn>
struct Timed;

template <int Slot, auto Member, int Entry, typename R, typename... A>
struct Timed<Slot, Member, Entry, R (*)(A...)> {
  static R Call(A... args) {
    const uint64_t started = stats::NowNs();
    const R result = (s_original[Slot].*Member)(args...);
    stats::CountLibraryCall(Entry, stats::NowNs() - started);
    return result;
  }
};

// Replaces one entry point of the record by its timed wrapper; an absent
// (optional) entry point stays null.
template <int Slot, auto Member, int Entry>
void Wrap(FsLibrary* library) {
  if (library->*Member == nullptr) return;
  using Fn = std::remove_reference_t<decltype(library->*Member)>;
  library->*Member = &Timed<Slot, Member, Entry, Fn>::Call;
}

template <int Slot>
void WrapSlot(FsLibrary* library) {
  s_original[Slot] = *library;
  Wrap<Slot, &FsLibrary::FS_SetLog, 1>(library);
  Wrap<Slot, &FsLibrary::FS_GetVolCookie, 2>(library);
  Wrap<Slot, &FsLibrary::FS_GetVolByCookie, 3>(library);
  Wrap<Slot, &FsLibrary::FS_GetCookies, 4>(library);
  Wrap<Slot, &FsLibrary::FS_GetLockedMap, 5>(library);
  Wrap<Slot, &FsLibrary::FS_UnlockMap, 6>(library);
  Wrap<Slot, &FsLibrary::FS_SetFileSizes, 7>(library);
  Wrap<Slot, &FsLibrary::FS_GetMaxLeases, 8>(library);
  Wrap<Slot, &FsLibrary::FS_Init, 9>(library);
}

template <size_t... Slots>
constexpr auto MakeWrappers(std::index_sequence<Slots...>) {
  return std::array<void (*)(FsLibrary*), sizeof...(Slots)>{&WrapSlot<Slots>...};
}

}  // namespace

void TimeLibraryCalls() {
  static constexpr auto kWrappers = MakeWrappers(std::make_index_sequence<FSMDCSP_MAX_LIBS>{});
  for (int i = 0; i < kestrix::spState.libCount; ++i) kWrappers[i](kestrix::spState.libs[i]);
}

}  // namespace kestrix
