#include "ResidentMemory.h"

#include <cstddef>
#include <span>

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace korlo::settings::mqtt
{
namespace
{

using Address = decltype(dl_phdr_info::dlpi_addr);

void* PointerTo(Address address)
{
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr): the linker tells it so
}

/// The linker has written addresses into its code, which are in no file.
bool HasAddressesInItsCode(const dl_phdr_info& file)
{
    for (const auto& segment : std::span(file.dlpi_phdr, file.dlpi_phnum))
    {
        if (segment.p_type != PT_DYNAMIC)
        {
            continue;
        }
        const auto* pEntry = static_cast<const ElfW(Dyn)*>(PointerTo(file.dlpi_addr + segment.p_vaddr));
        for (; pEntry->d_tag != DT_NULL; ++pEntry)
        {
            if (pEntry->d_tag == DT_TEXTREL || (pEntry->d_tag == DT_FLAGS && (pEntry->d_un.d_val & DF_TEXTREL) != 0))
            {
                return true;
            }
        }
    }
    return false;
}

int ForgetPagesThatAreInTheFile(dl_phdr_info* pFile, std::size_t, void*)
{
    if (HasAddressesInItsCode(*pFile))
    {
        return 0;
    }
    const auto pageBytes = static_cast<Address>(::sysconf(_SC_PAGESIZE));
    for (const auto& segment : std::span(pFile->dlpi_phdr, pFile->dlpi_phnum))
    {
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0)
        {
            const Address begin = (pFile->dlpi_addr + segment.p_vaddr) / pageBytes * pageBytes;
            const Address end = pFile->dlpi_addr + segment.p_vaddr + segment.p_memsz;
            ::madvise(PointerTo(begin), end - begin, MADV_DONTNEED);
        }
    }
    return 0;
}

}  // namespace

void ResidentMemory::GiveBack()
{
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
    ::dl_iterate_phdr(ForgetPagesThatAreInTheFile, nullptr);
}

}  // namespace korlo::settings::mqtt
