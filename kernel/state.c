// SPDX-License-Identifier: GPL-2.0-only
/*
 * The driver's state as text: /proc/mirelsnap/snapshots, and the dump.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/file.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/pid.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/string.h>
#include "freeze.h"
#include "log.h"
#include "state.h"
#include "tracking.h"
#include "version.h"
#include "volumes.h"

/* ---- a line a snapshot ---- */

static const char *state_text(const struct snapshot *snapshot)
{
	switch (READ_ONCE(snapshot->broken)) {
	case 0:
		return "snapped";
	case -ENOSPC:
		return "broken:full";
	case -ENOMEM:
		return "broken:memory";
	default:
		return "broken:io";
	}
}

static void show_snapshot(struct seq_file *file, const struct snapshot *snapshot)
{
	const struct ms_snap_entry *entry = &snapshot->entry;

	seq_printf(file, "volume=%u:%u name=", entry->volume_major, entry->volume_minor);
	seq_escape(file, entry->volume_name, " \t\n\\");
	seq_printf(file,
		   " owner=%u state=%s kept=%llu of=%u memory=%zu frozen_us=%lld instant=%lld.%09ld\n",
		   entry->app_pid, state_text(snapshot), cow_blocks_kept(snapshot),
		   snapshot->store.file.slots, cow_memory(snapshot),
		   div_s64(snapshot->frozen_ns, NSEC_PER_USEC), (s64)snapshot->instant.tv_sec,
		   snapshot->instant.tv_nsec);
}

int show_snapshots(struct seq_file *file, void *unused)
{
	struct snapshot *snapshot;

	mutex_lock(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list)
		if (snapshot->phase == SNAPSHOT_HELD)
			show_snapshot(file, snapshot);
	mutex_unlock(&volumes_lock);
	return 0;
}

/* ---- the dump ---- */

/* "process 812", and whether it still is. */
static void describe_owner(struct seq_file *text, s32 pid)
{
	struct pid *process = find_get_pid(pid);

	seq_printf(text, "process %d%s", pid, process ? "" : " (gone)");
	put_pid(process);
}

static void describe_snapshot(struct seq_file *text, const struct snapshot *snapshot)
{
	const struct ms_snap_entry *entry = &snapshot->entry;

	seq_printf(text, "  %u:%u %s: %llu blocks of %u bytes, of ", entry->volume_major,
		   entry->volume_minor, entry->volume_name, entry->num_blocks,
		   entry->block_size);
	describe_owner(text, entry->app_pid);
	seq_printf(text, ", relocation file %s of %u blocks on %u:%u, snapshot /dev/%s, %s\n",
		   entry->reloc_file_name, entry->reloc_file_size, entry->reloc_volume_major,
		   entry->reloc_volume_minor, snapshot->disk->disk_name, state_text(snapshot));
	seq_printf(text, "    kept %llu of %u, exempt %llu, in memory %u of %u, waiting %d, stood still %lld us\n",
		   cow_blocks_kept(snapshot), snapshot->store.file.slots, snapshot->exempt,
		   snapshot->store.next - snapshot->store.tail, snapshot->store.ring,
		   atomic_read(&snapshot->aside), div_s64(snapshot->frozen_ns, NSEC_PER_USEC));
}

static void describe_tracking(struct seq_file *text)
{
	struct snapshot *snapshot;
	unsigned int count = 0;

	list_for_each_entry(snapshot, &snapshots, list)
		count += snapshot->phase == SNAPSHOT_HELD && rcu_access_pointer(snapshot->tracking);
	seq_printf(text, "tracked volumes: %u\n", count);
	list_for_each_entry(snapshot, &snapshots, list) {
		const struct tracking *tracking = rcu_dereference_protected(
			snapshot->tracking, lockdep_is_held(&volumes_lock));

		if (snapshot->phase == SNAPSHOT_HELD && tracking)
			seq_printf(text, "  %u:%u: %s, sequence number %u, %u runs in use\n",
				   snapshot->entry.volume_major, snapshot->entry.volume_minor,
				   snapshot->entry.tracking_guid, tracking->sequence_number,
				   tracking->nr_used);
	}
}

static void describe_state(struct seq_file *text)
{
	struct snapshot *snapshot;
	struct mapping *mapping;
	unsigned int count = 0;

	seq_printf(text, "version: %s\nlog level: %u\n", MIRELSNAP_VERSION, READ_ONCE(log_level));
	mutex_lock(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list)
		count += snapshot->phase == SNAPSHOT_HELD;
	seq_printf(text, "snapped volumes: %u\n", count);
	list_for_each_entry(snapshot, &snapshots, list)
		if (snapshot->phase == SNAPSHOT_HELD)
			describe_snapshot(text, snapshot);
	count = 0;
	list_for_each_entry(mapping, &mappings, list)
		count++;
	seq_printf(text, "mappings: %u\n", count);
	list_for_each_entry(mapping, &mappings, list) {
		seq_printf(text, "  %s: %s, of ", mapping->wire.volume_name,
			   mapping->wire.reloc_file_name);
		describe_owner(text, mapping->wire.app_pid);
		seq_putc(text, '\n');
	}
	describe_frozen(text);
	describe_tracking(text);
	mutex_unlock(&volumes_lock);
}

/* Fills a text that kvfree() frees; null: no memory. */
static char *make_text(size_t *length)
{
	size_t size;

	for (size = PAGE_SIZE;; size *= 2) {
		struct seq_file text = { .size = size, .buf = kvmalloc(size, GFP_KERNEL) };

		if (!text.buf)
			return NULL;
		describe_state(&text);
		if (!seq_has_overflowed(&text)) {
			*length = text.count;
			return text.buf;
		}
		kvfree(text.buf);
	}
}

static void log_text(char *text, size_t length)
{
	char *line;

	text[length - 1] = '\0';	/* in place of the last line's end */
	while ((line = strsep(&text, "\n")))
		pr_info("%s\n", line);
}

/*
 * Whoever makes a file on a frozen file system waits for its thaw.  The file
 * itself when it is there, else where it would be made.
 */
static int check_place(struct ms_request *rq, const char *name)
{
	struct path path;
	char *folder;
	int result = kern_path(name, LOOKUP_FOLLOW, &path);

	if (result == -ENOENT) {
		folder = kstrdup(name, GFP_KERNEL);
		if (!folder)
			return refuse(rq, -ENOMEM, "no memory");
		*(strrchr(folder, '/') + (strrchr(folder, '/') == folder)) = '\0';
		result = kern_path(folder, LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &path);
		kfree(folder);
	} else if (!result && !d_is_reg(path.dentry)) {
		path_put(&path);
		return refuse(rq, -EINVAL, "%.96s is not a file", name);
	}
	if (result)
		return refuse(rq, result, "the folder of %.96s cannot be opened: error %d", name,
			      -result);
	if (path.dentry->d_sb->s_writers.frozen != SB_UNFROZEN)
		result = refuse(rq, -EDEADLK, "%.96s lies on a file system that is frozen", name);
	path_put(&path);
	return result;
}

static int write_text(struct ms_request *rq, const char *name, const char *text, size_t length)
{
	struct file *file;
	loff_t position = 0;
	ssize_t written = 0;

	file = filp_open(name, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_LARGEFILE, 0600);
	if (IS_ERR(file))
		return refuse(rq, PTR_ERR(file), "%.96s cannot be opened: error %ld", name,
			      -PTR_ERR(file));
	while (length && written >= 0) {
		written = kernel_write(file, text, length, &position);
		if (!written)
			written = -ENOSPC;
		if (written > 0) {
			text += written;
			length -= written;
		}
	}
	fput(file);
	if (length)
		return refuse(rq, written, "%.96s cannot be written: error %zd", name, -written);
	return 0;
}

int do_dump_state(struct ms_request *rq)
{
	const struct ms_dump_state *dump = rq_record(rq, struct ms_dump_state, 0);
	int result = 0;
	size_t length;
	char *text;

	if (dump->file_flag == 1)
		result = check_place(rq, dump->file_name);
	if (result)
		return result;
	text = make_text(&length);
	if (!text)
		return refuse(rq, -ENOMEM, "no memory for the text");
	if (dump->file_flag == 1)
		result = write_text(rq, dump->file_name, text, length);
	else
		log_text(text, length);
	kvfree(text);
	return result;
}
