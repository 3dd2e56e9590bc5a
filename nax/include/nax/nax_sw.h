/*
 * Entry points of the software engine (libnax.so built from nax/) beyond
 * the engine interface of nax.h. The board's engine library lacks them;
 * look them up with dlsym() where the library may be either.
 */
#pragma once

extern "C" {

/*
 * Sets how many threads one job may use, the calling thread included:
 * large jobs are cut into bands of rows that the calling thread and up to
 * threads - 1 workers compute, with the same result byte for byte as one
 * thread. 1 runs every job on its calling thread alone; 0 restores the
 * default, the cores this process may run on (at most 4). Applies to jobs
 * that start afterwards; returns the number now in force.
 */
int nax_sw_set_job_threads(int threads);

}  // extern "C"
