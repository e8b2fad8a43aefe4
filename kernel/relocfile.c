// SPDX-License-Identifier: GPL-2.0-only
/*
 * A store's blocks are written below the file system: it may itself stand
 * still, and must not be asked for memory or a lock while a write waits.  So
 * the file is treated as a swap file: the file system says once where it lies
 * (whether or not the blocks were ever written), and promises to leave it
 * there.
 */
#include <linux/cred.h>
#include <linux/file.h>
#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/swap.h>
#include <linux/uidgid.h>
#include "cow.h"
#include "relocfile.h"

static u64 needed_bytes(const struct ms_snap_entry *entry)
{
	return (u64)entry->reloc_file_size * entry->block_size;
}

static u64 blocks_in_runs(struct ms_snap_entry *entry)
{
	u64 blocks = 0;
	u32 i;

	for (i = 0; i < entry->num_runs; i++)
		blocks += entry_runs(entry)[i].num_blocks;
	return blocks;
}

/*
 * Old content of all users' files goes into it.  Who owns a directory above
 * the file can put another one in its place at any moment, so what counts is
 * the inode that is used from here on: nobody but root made it or may read it.
 */
static int check_owner(struct ms_request *rq, const char *name,
		       const struct inode *inode)
{
	if (!S_ISREG(inode->i_mode))
		return refuse(rq, -EINVAL, "the relocation file %.96s is not a file", name);
	if (!uid_eq(inode->i_uid, GLOBAL_ROOT_UID))
		return refuse(rq, -EPERM, "the relocation file %.96s belongs to user %u, not root",
			      name, from_kuid_munged(&init_user_ns, inode->i_uid));
	if (inode->i_nlink != 1)
		return refuse(rq, -EPERM, "the relocation file %.96s has %u links",
			      name, inode->i_nlink);
	if (inode->i_mode & (S_IRWXG | S_IRWXO))
		return refuse(rq, -EPERM, "the relocation file %.96s is open to others than root",
			      name);
	return 0;
}

static int check_file(struct ms_request *rq, const struct ms_snap_entry *entry,
		      const struct inode *inode)
{
	const char *name = entry->reloc_file_name;
	dev_t named = volume_dev(entry->reloc_volume_major, entry->reloc_volume_minor);
	dev_t holder = inode->i_sb->s_dev;
	u64 covered;
	int result = check_owner(rq, name, inode);

	if (result)
		return result;
	/* A file system of several devices (btrfs) has a number of its own. */
	if (MAJOR(holder) && holder != named)
		return refuse(rq, -EINVAL,
			      "the relocation file %.96s lies on %u:%u, not on %u:%u", name,
			      MAJOR(holder), MINOR(holder), entry->reloc_volume_major,
			      entry->reloc_volume_minor);
	if (i_size_read(inode) < needed_bytes(entry))
		return refuse(rq, -EINVAL,
			      "the relocation file %.96s has %lld bytes, %llu are needed", name,
			      i_size_read(inode), needed_bytes(entry));
	covered = blocks_in_runs((struct ms_snap_entry *)entry);
	if (entry->reloc_volume_major == entry->volume_major &&
	    entry->reloc_volume_minor == entry->volume_minor &&
	    covered < entry->reloc_file_size)
		return refuse(rq, -EINVAL,
			      "the relocation file %.96s lies on its own volume, but the runs cover only %llu of its %u blocks",
			      name, covered, entry->reloc_file_size);
	return 0;
}

int reloc_file_open(struct ms_request *rq, const struct ms_snap_entry *entry,
		    struct reloc_file *file)
{
	struct path path;
	int result;

	/* Looked at before it is opened: opening a device or a pipe does things. */
	result = kern_path(entry->reloc_file_name, LOOKUP_FOLLOW | LOOKUP_NO_SYMLINKS, &path);
	if (result)
		return refuse(rq, result, "the relocation file %.96s: error %d",
			      entry->reloc_file_name, -result);
	result = check_file(rq, entry, d_inode(path.dentry));
	if (!result) {
		/* For reading: nothing is written through it, and its file system can
		 * become read-only.
		 */
		file->file = dentry_open(&path, O_RDONLY | O_LARGEFILE, current_cred());
		if (IS_ERR(file->file)) {
			result = refuse(rq, PTR_ERR(file->file),
					"the relocation file %.96s cannot be opened: error %ld",
					entry->reloc_file_name, -PTR_ERR(file->file));
			file->file = NULL;
		}
	}
	path_put(&path);
	return result;
}

/* ---- where it lies ---- */

static int add_extent(struct reloc_file *file, u32 slots, sector_t sector)
{
	struct reloc_extent *extent, *more;

	if (file->nr_extents) {
		extent = &file->extents[file->nr_extents - 1];
		if (extent->sector + ((sector_t)(file->slots - extent->slot) << COW_SHIFT) == sector) {
			file->slots += slots;
			return 0;
		}
	}
	/* The array doubles at each power of two. */
	if (!(file->nr_extents & (file->nr_extents - 1))) {
		more = kvmalloc_array(max(2 * file->nr_extents, 1u), sizeof(*more), GFP_KERNEL);
		if (!more)
			return -ENOMEM;
		if (file->nr_extents)
			memcpy(more, file->extents, file->nr_extents * sizeof(*more));
		kvfree(file->extents);
		file->extents = more;
	}
	extent = &file->extents[file->nr_extents++];
	extent->slot = file->slots;
	extent->sector = sector;
	file->slots += slots;
	return 0;
}

static void free_swap_extents(struct swap_info_struct *swap)
{
	while (!RB_EMPTY_ROOT(&swap->swap_extent_root)) {
		struct rb_node *node = rb_first(&swap->swap_extent_root);

		rb_erase(node, &swap->swap_extent_root);
		kfree(rb_entry(node, struct swap_extent, rb_node));
	}
}

static int take_swap_extents(struct reloc_file *file, struct swap_info_struct *swap, u32 most)
{
	struct rb_node *node;
	int result = 0;

	for (node = rb_first(&swap->swap_extent_root); node && !result; node = rb_next(node)) {
		struct swap_extent *extent = rb_entry(node, struct swap_extent, rb_node);
		u32 slots = min_t(u64, extent->nr_pages, most - file->slots);

		if (slots)
			result = add_extent(file, slots, extent->start_block << (PAGE_SHIFT - 9));
	}
	return result;
}

/* Asks the file system as for a swap file. */
static int map_as_swap_file(struct reloc_file *file, u32 most)
{
	const struct address_space_operations *ops = file->file->f_mapping->a_ops;
	struct swap_info_struct *swap;
	sector_t span;
	int result;

	swap = kzalloc(sizeof(*swap), GFP_KERNEL);
	if (!swap)
		return -ENOMEM;
	swap->swap_extent_root = RB_ROOT;
	swap->swap_file = file->file;
	swap->bdev = file->bdev;
	swap->max = most;
	result = ops->swap_activate(swap, file->file, &span);
	if (result >= 0 && swap->flags & SWP_FS_OPS)
		result = -EOPNOTSUPP;	/* it wants to be written through */
	if (result >= 0) {
		file->bdev = swap->bdev;
		result = take_swap_extents(file, swap, most);
	}
	free_swap_extents(swap);
	kfree(swap);
	return result;
}

/*
 * Slot by slot, for file systems that keep no swap files in a way of their
 * own.  What is not aligned or lies in pieces is left out.
 */
static int map_by_blocks(struct reloc_file *file, u32 most)
{
	struct inode *inode = file_inode(file->file);
	unsigned int bits = inode->i_blkbits, in_slot = COW_BYTES >> bits, i;
	u64 blocks = i_size_read(inode) >> bits, at;
	int result = 0;

	if (bits > PAGE_SHIFT)
		return -EOPNOTSUPP;
	for (at = 0; at + in_slot <= blocks && file->slots < most && !result;) {
		sector_t first = at, next;

		result = bmap(inode, &first);
		if (result || !first)
			return result ?: -EINVAL;	/* a hole */
		if (first & (in_slot - 1)) {
			at++;
			continue;
		}
		for (i = 1; i < in_slot; i++) {
			next = at + i;
			result = bmap(inode, &next);
			if (result || !next)
				return result ?: -EINVAL;
			if (next != first + i)
				break;
		}
		at += i;
		if (i == in_slot)
			result = add_extent(file, 1, first << (bits - 9));
		cond_resched();
	}
	return result;
}

static int map_and_guard(struct reloc_file *file, u32 most)
{
	struct address_space *mapping = file->file->f_mapping;
	struct inode *inode = mapping->host;
	int result;

	file->bdev = inode->i_sb->s_bdev;
	inode_lock(inode);
	if (IS_SWAPFILE(inode) || !inode->i_nlink)
		result = -EBUSY;
	else if (mapping->a_ops->swap_activate)
		result = map_as_swap_file(file, most);
	else
		result = file->bdev ? map_by_blocks(file, most) : -EOPNOTSUPP;
	if (!result) {
		inode->i_flags |= S_SWAPFILE;
		file->guarded = true;
	}
	inode_unlock(inode);
	return result;
}

int reloc_file_map(struct ms_request *rq, const struct ms_snap_entry *entry,
		   struct reloc_file *file)
{
	u64 most = needed_bytes(entry) / COW_BYTES;
	/* What is still to be written to it would come later than what the store holds. */
	int result = vfs_fsync(file->file, 0);

	if (!result)
		result = map_and_guard(file, min_t(u64, most, TABLE_MOST_SLOTS));
	if (result)
		return refuse(rq, result,
			      "the relocation file %.96s cannot hold blocks below its file system: error %d",
			      entry->reloc_file_name, -result);
	if (!file->slots)
		return refuse(rq, -EINVAL, "the relocation file %.96s has no room for a block of %u bytes",
			      entry->reloc_file_name, COW_BYTES);
	return 0;
}

void reloc_file_close(struct reloc_file *file)
{
	if (file->guarded) {
		struct address_space *mapping = file->file->f_mapping;
		struct inode *inode = mapping->host;

		if (mapping->a_ops->swap_deactivate)
			mapping->a_ops->swap_deactivate(file->file);
		inode_lock(inode);
		inode->i_flags &= ~S_SWAPFILE;
		inode_unlock(inode);
		file->guarded = false;
	}
	if (file->file)
		fput(file->file);
	file->file = NULL;
	kvfree(file->extents);
	file->extents = NULL;
	file->nr_extents = 0;
}

sector_t reloc_file_sector(const struct reloc_file *file, u32 slot, u32 *slots)
{
	u32 low = 0, high = file->nr_extents, end;
	const struct reloc_extent *extent;

	while (high - low > 1) {
		u32 middle = low + (high - low) / 2;

		if (file->extents[middle].slot <= slot)
			low = middle;
		else
			high = middle;
	}
	extent = &file->extents[low];
	end = low + 1 < file->nr_extents ? extent[1].slot : file->slots;
	*slots = end - slot;
	return extent->sector + ((sector_t)(slot - extent->slot) << COW_SHIFT);
}
