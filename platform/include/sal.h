// Source annotations. They mean something to the analysers of the Microsoft compiler only.
#pragma once

#define _In_
#define _In_opt_
#define _In_z_
#define _In_range_(low, high)
#define _In_reads_(count)
#define _In_reads_opt_(count)
#define _In_reads_bytes_(size)
#define _In_reads_bytes_opt_(size)
#define _Out_
#define _Out_opt_
#define _Out_writes_(count)
#define _Out_writes_to_(capacity, count)
#define _Out_writes_bytes_(size)
#define _Out_writes_bytes_opt_(size)
#define _Out_writes_bytes_to_(capacity, size)
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Inout_
#define _Inout_opt_
#define _Inout_updates_(count)
#define _Inout_updates_bytes_(size)
#define _Ret_maybenull_
#define _Ret_notnull_
#define _Success_(expression)
#define _When_(expression, annotations)
#define _At_(target, annotations)
#define _Use_decl_annotations_
#define _Must_inspect_result_
#define _Check_return_
#define _Field_size_(count)
#define _Field_size_bytes_(size)
#define _Function_class_(name)
#define _Analysis_assume_(expression)
#define _Guarded_by_(lock)
#define _Interlocked_
#define _Acquires_lock_(lock)
#define _Releases_lock_(lock)
#define _Requires_lock_held_(lock)
#define _Requires_lock_not_held_(lock)
#define _IRQL_requires_(irql)
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_min_(irql)
#define _IRQL_requires_same_
#define _IRQL_raises_(irql)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_always_function_max_(irql)
#define _IRQL_always_function_min_(irql)
