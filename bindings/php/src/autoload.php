<?php

/**
 * Loads the classes of this package where there is no Composer: require this file once.
 */

declare(strict_types=1);

spl_autoload_register(static function (string $class): void {
    $prefix = 'Korlo\\Settings\\';
    $path = __DIR__ . '/' . strtr(substr($class, strlen($prefix)), '\\', '/') . '.php';
    if (str_starts_with($class, $prefix) && is_file($path)) {
        require $path;
    }
});
