<?php

/**
 * Every address of the page that is no file.
 */

declare(strict_types=1);

require __DIR__ . '/../src/autoload.php';

(new Korlo\SettingsPage\Site($_SERVER, $_GET, $_POST, $_COOKIE))->answer();
