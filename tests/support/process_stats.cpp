#include "process_stats.h"

#include <dirent.h>
#include <malloc.h>

namespace cvtest {

size_t thread_count()
{
	size_t count = 0;
	if (DIR *dir = opendir("/proc/self/task")) {
		while (dirent *entry = readdir(dir))
			count += entry->d_name[0] != '.';
		closedir(dir);
	}
	return count;
}

size_t heap_in_use()
{
	const struct mallinfo2 info = mallinfo2();
	return info.uordblks + info.hblkhd;
}

} // namespace cvtest
