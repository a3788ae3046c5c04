// Reads the result directories given and prints how many methods they hold, and the first.
#include <iostream>
#include <string>
#include <vector>

#include <jitreader/jitreader.h>

using namespace velmark_3_11;

int main(int argc, char** argv)
{
    std::vector<std::wstring> paths;
    for (int i = 1; i < argc; ++i)
        paths.emplace_back(argv[i], argv[i] + std::char_traits<char>::length(argv[i]));
    auto directories = basekit2::make_path_iterator(paths);
    boost::intrusive_ptr<ISymbolFileLocator> locator;
    const auto resolver = ISymbolResolver::create(directories, locator);
    if (!resolver)
        return 1;
    std::size_t methods = 0;
    std::wstring first;
    for (auto it = resolver->getMethods(); !it.at_end(); it.next(), ++methods)
        if (methods == 0)
            first = it.current()->getName();
    std::wcout << methods << L" methods, the first " << first << L"\n";
    return methods == 0;
}
