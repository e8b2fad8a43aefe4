// SPDX-License-Identifier: GPL-2.0-only
/*
 * The hook: an ftrace handler on submit_bio_noacct(), which every bio passes.
 *
 * The handler decides, and redirects only first writes and discards.  It is
 * installed while a volume is snapped, and not there else.
 */
#include <linux/ftrace.h>
#include <linux/hash.h>
#include <linux/hashtable.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/rcupdate.h>
#include <linux/srcu.h>
#include "compat.h"
#include "cow.h"
#include "intercept.h"
#include "tracking.h"

static bool hook_stays;
module_param(hook_stays, bool, 0444);
MODULE_PARM_DESC(hook_stays, "leave the hook in place when nothing is snapped any more");

/* Snapshots by their volume's disk. */
static DEFINE_HASHTABLE(by_disk, 6);
static DEFINE_MUTEX(hook_lock);		/* the hash, and what follows */
static unsigned int snapshots;
static bool hooked;

/* Held by whoever was redirected. */
DEFINE_STATIC_SRCU(redirected);

/*
 * The first snapshot that must see a write before it goes on.  Under RCU or
 * `redirected`.  `note`: tell those that track changes.
 */
static __always_inline struct snapshot *first_concerned(struct bio *bio, bool note)
{
	struct gendisk *disk = bio->bi_bdev->bd_disk;
	struct snapshot *snapshot;
	u64 block, end;

	hash_for_each_possible_rcu_notrace(by_disk, snapshot, by_disk, (unsigned long)disk) {
		if (snapshot->origin != disk)
			continue;
		if (note)
			tracking_note(snapshot, bio);
		if (READ_ONCE(snapshot->live) && cow_blocks(snapshot, bio, &block, &end) &&
		    !cow_all_kept(snapshot, block, end))
			return snapshot;
	}
	return NULL;
}

void intercept_submit(struct bio *bio)
{
	int index = srcu_read_lock(&redirected);
	struct snapshot *snapshot;

	while ((snapshot = first_concerned(bio, false))) {
		/*
		 * A discard promises nothing, and the old blocks are wanted:
		 * it is answered without being done.
		 */
		if (bio_op(bio) == REQ_OP_DISCARD) {
			bio_endio(bio);
			goto out;
		}
		if (cow_take(snapshot, bio))
			goto out;
	}
	submit_bio_noacct(bio);
out:
	srcu_read_unlock(&redirected, index);
}

/* Where redirected bios arrive, in place of submit_bio_noacct(). */
static void notrace noinline arrive(struct bio *bio)
{
	intercept_submit(bio);
}

static void notrace look(unsigned long ip, unsigned long parent_ip, struct ftrace_ops *ops,
			 struct ftrace_regs *fregs)
{
	struct bio *bio = (struct bio *)ftrace_first_argument(fregs);

	if (!op_is_write(bio_op(bio)) || !bio_sectors(bio))
		return;
	rcu_read_lock();
	/* What is put aside comes again, and is noted by all at the latest then. */
	if (first_concerned(bio, true))
		ftrace_redirect(fregs, (unsigned long)arrive);
	rcu_read_unlock();
}

/* No registers are saved: the arguments are enough.  Nothing traced is called. */
static struct ftrace_ops hook = {
	.func	= look,
	.flags	= FTRACE_OPS_FL_IPMODIFY,
};

static int install(void)
{
	int result;

	if (hooked)
		return 0;
	result = register_ftrace_function(&hook);
	hooked = !result;
	return result;
}

static void uninstall(void)
{
	if (!hooked)
		return;
	unregister_ftrace_function(&hook);
	hooked = false;
	/*
	 * A task between the redirection and srcu_read_lock() has not slept of
	 * its own will; one inside holds the SRCU lock; one after the unlock has
	 * not slept since.  In this order, and no other, all have left.
	 */
	synchronize_rcu_tasks();
	synchronize_srcu(&redirected);
	synchronize_rcu_tasks();
}

int intercept_add(struct snapshot *snapshot)
{
	int result;

	mutex_lock(&hook_lock);
	result = install();
	if (!result) {
		hash_add_rcu(by_disk, &snapshot->by_disk, (unsigned long)snapshot->origin);
		snapshots++;
	}
	mutex_unlock(&hook_lock);
	return result;
}

void intercept_wait(void)
{
	synchronize_rcu();
	synchronize_srcu(&redirected);
}

void intercept_remove(struct snapshot *snapshot)
{
	mutex_lock(&hook_lock);
	if (hash_hashed(&snapshot->by_disk)) {
		hash_del_rcu(&snapshot->by_disk);
		intercept_wait();
		if (!--snapshots && !hook_stays)
			uninstall();
	}
	mutex_unlock(&hook_lock);
}

int intercept_init(void)
{
	static char name[] = "submit_bio_noacct";

	return ftrace_set_filter(&hook, (unsigned char *)name, strlen(name), 1);
}

void intercept_exit(void)
{
	uninstall();
	ftrace_free_filter(&hook);
}
