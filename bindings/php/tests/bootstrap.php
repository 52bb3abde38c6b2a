<?php

/**
 * KORLO_SETTINGS_SERVER names the program of the settings server that the tests start.
 */

declare(strict_types=1);

require __DIR__ . '/../src/autoload.php';

spl_autoload_register(static function (string $class): void {
    $prefix = 'Korlo\\Settings\\Tests\\';
    if (str_starts_with($class, $prefix)) {
        require __DIR__ . '/' . strtr(substr($class, strlen($prefix)), '\\', '/') . '.php';
    }
});

if (!is_executable((string)getenv('KORLO_SETTINGS_SERVER'))) {
    fwrite(STDERR, "KORLO_SETTINGS_SERVER must name the program korlo-settings-server\n");
    exit(1);
}
