<?php

/**
 * Loads the classes of the page, and those of the PHP client: from the source tree, else from PHP's include path.
 */

declare(strict_types=1);

spl_autoload_register(static function (string $class): void {
    $prefix = 'Korlo\\SettingsPage\\';
    $path = __DIR__ . '/' . substr($class, strlen($prefix)) . '.php';
    if (str_starts_with($class, $prefix) && is_file($path)) {
        require $path;
    }
});

$client = __DIR__ . '/../../bindings/php/src/autoload.php';
require is_file($client) ? $client : 'Korlo/Settings/autoload.php';
