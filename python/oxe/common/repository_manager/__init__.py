"""Knowledge-base repository manager.

The native library ``libovra_kb.so`` drives this package through the
functions of :mod:`oxe.common.repository_manager.interface` and reports
failures through :mod:`oxe.common.repository_manager.utils.repository_manager_log`.
"""
