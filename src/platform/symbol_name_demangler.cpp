#include "platform/symbol_name_demangler.h"

namespace NAMEKIT_3_30 {

boost::shared_ptr<ISymbolNameDemangler> ISymbolNameDemangler::create(const std::wstring&, exec_format_t)
{
    return boost::shared_ptr<ISymbolNameDemangler>();
}

} // namespace NAMEKIT_3_30
